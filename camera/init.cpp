// camera-init: process 1 of a virtual machine made of kernel namespaces.
//
// usage: camera-init CONTROL_FD
//
// CONTROL_FD is a SEQPACKET socket. A request is a list of texts, each with a closing NUL, the first one the
// verb; descriptors travel beside it. The answer is "ok", or the errno in decimal digits, with at most one
// descriptor. When the other end closes, process 1 ends, and the kernel ends all that runs in the machine
// with it.
#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t MAX_REQUEST = 1 << 20;
constexpr size_t MAX_DESCRIPTORS = 16;

struct Request {
    std::vector<std::string> fields;
    std::vector<int> descriptors;
};

struct Answer {
    int error = 0;
    int descriptor = -1; // sent and then closed
};

// Where the wait status of a started process goes, by its process id.
std::map<pid_t, int> status_pipes;

Answer result_of(long result)
{
    return {result < 0 ? errno : 0, -1};
}

Answer descriptor_or_error(int descriptor)
{
    return {descriptor < 0 ? errno : 0, descriptor};
}

unsigned long number(const std::string& text)
{
    return strtoul(text.c_str(), nullptr, 0);
}

bool receive_request(int control, Request& request)
{
    static char buffer[MAX_REQUEST];
    alignas(cmsghdr) char ancillary[CMSG_SPACE(MAX_DESCRIPTORS * sizeof(int))];
    iovec part = {buffer, sizeof buffer};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = ancillary;
    message.msg_controllen = sizeof ancillary;
    const ssize_t length = recvmsg(control, &message, MSG_CMSG_CLOEXEC);
    if (length <= 0)
        return false;
    for (const char* field = buffer; field < buffer + length; field += strlen(field) + 1)
        request.fields.emplace_back(field);
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_type == SCM_RIGHTS) {
        request.descriptors.resize((header->cmsg_len - CMSG_LEN(0)) / sizeof(int));
        memcpy(request.descriptors.data(), CMSG_DATA(header), header->cmsg_len - CMSG_LEN(0));
    }
    return true;
}

void send_answer(int control, const Answer& answer)
{
    std::string text = answer.error == 0 ? "ok" : std::to_string(answer.error);
    alignas(cmsghdr) char ancillary[CMSG_SPACE(sizeof(int))] = {};
    iovec part = {text.data(), text.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (answer.descriptor >= 0) {
        message.msg_control = ancillary;
        message.msg_controllen = sizeof ancillary;
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(header), &answer.descriptor, sizeof(int));
    }
    sendmsg(control, &message, MSG_NOSIGNAL);
    if (answer.descriptor >= 0)
        close(answer.descriptor);
}

std::vector<char*> pointers(std::vector<std::string>::iterator first, std::vector<std::string>::iterator last)
{
    std::vector<char*> list;
    for (; first != last; ++first)
        list.push_back(first->data());
    list.push_back(nullptr);
    return list;
}

// In the child. The descriptors are first moved out of the way, so that none is overwritten before its turn.
[[noreturn]] void become_program(Request& request, int error_pipe)
{
    constexpr int OUT_OF_THE_WAY = 100;
    const auto arguments_end = request.fields.begin() + 4 + static_cast<long>(number(request.fields[3]));
    const std::vector<char*> arguments = pointers(request.fields.begin() + 4, arguments_end);
    std::vector<char*> environment = pointers(arguments_end, request.fields.end());
    error_pipe = fcntl(error_pipe, F_DUPFD_CLOEXEC, OUT_OF_THE_WAY);
    for (int& descriptor : request.descriptors)
        descriptor = fcntl(descriptor, F_DUPFD_CLOEXEC, OUT_OF_THE_WAY);
    for (size_t i = 1; i < request.descriptors.size(); ++i)
        dup2(request.descriptors[i], static_cast<int>(i) - 1);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    setsid();
    if (request.fields[2] == "tty")
        ioctl(0, TIOCSCTTY, 0);
    if (chdir(request.fields[1].c_str()) == 0) {
        environ = environment.data();
        execvp(arguments[0], arguments.data());
    }
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(error_pipe, &error, sizeof error);
    _exit(127);
}

// spawn DIRECTORY "tty"|"" COUNT ARGUMENT... NAME=VALUE...; descriptors: where the wait status goes, then 0,
// 1, 2...
Answer spawn(Request& request)
{
    int error_pipe[2];
    if (pipe2(error_pipe, O_CLOEXEC) != 0)
        return {errno, -1};
    const pid_t child = fork();
    if (child == 0)
        become_program(request, error_pipe[1]);
    int error = child < 0 ? errno : 0;
    close(error_pipe[1]);
    while (child > 0 && read(error_pipe[0], &error, sizeof error) < 0 && errno == EINTR) {
    }
    close(error_pipe[0]);
    if (error != 0) {
        waitpid(child, nullptr, 0);
        return {error, -1};
    }
    status_pipes[child] = request.descriptors[0];
    request.descriptors.erase(request.descriptors.begin());
    return descriptor_or_error(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
}

// The new root's old place and the old root are let go together.
int pivot(const char* new_root)
{
    if (chdir(new_root) != 0 || syscall(SYS_pivot_root, ".", ".") != 0 || umount2(".", MNT_DETACH) != 0)
        return -1;
    return chdir("/");
}

void reap()
{
    int status = 0;
    for (pid_t child = waitpid(-1, &status, WNOHANG); child > 0; child = waitpid(-1, &status, WNOHANG)) {
        const auto found = status_pipes.find(child);
        if (found == status_pipes.end())
            continue;
        [[maybe_unused]] const ssize_t written = write(found->second, &status, sizeof status);
        close(found->second);
        status_pipes.erase(found);
    }
}

// Ends every process of the machine but this one, and returns when the last of them is gone.
void end_everything()
{
    int status = 0;
    kill(-1, SIGKILL);
    for (pid_t child = waitpid(-1, &status, 0); child > 0 || errno == EINTR;
         child = waitpid(-1, &status, 0)) {
        const auto found = status_pipes.find(child);
        if (found != status_pipes.end()) {
            [[maybe_unused]] const ssize_t written = write(found->second, &status, sizeof status);
            close(found->second);
            status_pipes.erase(found);
        }
    }
}

Answer carry_out(Request& request)
{
    const std::vector<std::string>& field = request.fields;
    const std::string_view verb = field.empty() ? std::string_view() : field[0];
    const auto text_or_null = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    if (verb == "spawn" && field.size() > 4 && !request.descriptors.empty())
        return spawn(request);
    if (verb == "mount" && field.size() == 6)
        return result_of(mount(text_or_null(field[1]), field[2].c_str(), text_or_null(field[3]),
                               number(field[4]), text_or_null(field[5])));
    if (verb == "unmount" && field.size() == 2)
        return result_of(umount2(field[1].c_str(), MNT_DETACH));
    if (verb == "pivot" && field.size() == 2)
        return result_of(pivot(field[1].c_str()));
    if (verb == "hostname" && field.size() == 2)
        return result_of(sethostname(field[1].c_str(), field[1].size()));
    if (verb == "open" && field.size() == 3)
        return descriptor_or_error(
            open(field[1].c_str(), static_cast<int>(number(field[2])) | O_CLOEXEC | O_NOCTTY));
    if (verb == "socket" && field.size() == 4)
        return descriptor_or_error(socket(static_cast<int>(number(field[1])),
                                          static_cast<int>(number(field[2])) | SOCK_CLOEXEC,
                                          static_cast<int>(number(field[3]))));
    if (verb == "new-network")
        return result_of(unshare(CLONE_NEWNET));
    if (verb == "end-everything") {
        end_everything();
        return {};
    }
    return {EINVAL, -1};
}

[[noreturn]] void serve(int control)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_NAME, "init");
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        _exit(1);
    sigset_t children;
    sigemptyset(&children);
    sigaddset(&children, SIGCHLD);
    sigprocmask(SIG_SETMASK, &children, nullptr);
    const int child_events = signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK);
    pollfd waiting[] = {{control, POLLIN, 0}, {child_events, POLLIN, 0}};
    while (true) {
        poll(waiting, 2, -1);
        if (waiting[1].revents != 0) {
            signalfd_siginfo event;
            while (read(child_events, &event, sizeof event) > 0) {
            }
            reap();
        }
        if (waiting[0].revents == 0)
            continue;
        Request request;
        if (!receive_request(control, request))
            _exit(0);
        send_answer(control, carry_out(request));
        for (const int descriptor : request.descriptors)
            close(descriptor);
    }
}

} // namespace

// The outer process stays until process 1 is gone, and so the whole machine: to wait for one is to wait for
// all.
int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    const int control = atoi(argv[1]);
    fcntl(control, F_SETFD, FD_CLOEXEC);
    setsid();
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
        send_answer(control, {errno, -1});
        return 1;
    }
    const pid_t child = fork();
    if (child == 0)
        serve(control);
    const std::string hello = std::to_string(child);
    send(control, hello.data(), hello.size(), MSG_NOSIGNAL);
    close(control);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return 0;
}
