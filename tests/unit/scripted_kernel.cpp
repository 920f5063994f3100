#include "scripted_kernel.h"

#include "support.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

ScriptedKernel* scripted = nullptr;
std::vector<std::string> answer;

template <typename Function> Function* real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The number may have become a real socket's since; the stand-in is no socket.
bool is_scripted(int descriptor)
{
    struct stat status = {};
    return scripted != nullptr && descriptor == scripted->descriptor && fstat(descriptor, &status) == 0 &&
           S_ISCHR(status.st_mode);
}

int fail_if(const char* call)
{
    errno = EPERM;
    return scripted->failing_call == call ? -1 : 0;
}

} // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept
{
    if (scripted == nullptr || domain != AF_NETLINK)
        return real<int(int, int, int)>("socket")(domain, type, protocol);
    if (fail_if("socket") != 0)
        return -1;
    return scripted->descriptor = open("/dev/null", O_RDWR | O_CLOEXEC);
}

extern "C" int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept
{
    if (!is_scripted(descriptor))
        return real<int(int, const sockaddr*, socklen_t)>("bind")(descriptor, address, length);
    return fail_if("bind");
}

extern "C" ssize_t sendto(int descriptor, const void* bytes, size_t size, int flags, const sockaddr* address,
                          socklen_t length)
{
    if (!is_scripted(descriptor))
        return real<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto")(
            descriptor, bytes, size, flags, address, length);
    if (fail_if("sendto") != 0)
        return -1;
    scripted->requests.emplace_back(static_cast<const char*>(bytes), size);
    nlmsghdr header{};
    std::memcpy(&header, bytes, sizeof header);
    const auto found =
        scripted->datagrams.find({header.nlmsg_type, static_cast<const char*>(bytes)[sizeof header]});
    answer = found != scripted->datagrams.end() ? found->second : std::vector{done_message()};
    return static_cast<ssize_t>(size);
}

extern "C" ssize_t recvmsg(int descriptor, msghdr* message, int flags)
{
    if (!is_scripted(descriptor))
        return real<ssize_t(int, msghdr*, int)>("recvmsg")(descriptor, message, flags);
    if (scripted->failing_receives > 0) {
        --scripted->failing_receives;
        errno = ENOBUFS;
        return -1;
    }
    if (answer.empty())
        return 0;
    const std::string datagram = answer.front();
    answer.erase(answer.begin());
    const std::size_t size = std::min(datagram.size(), message->msg_iov->iov_len);
    std::memcpy(message->msg_iov->iov_base, datagram.data(), size);
    return static_cast<ssize_t>(size);
}

extern "C" FILE* fopen(const char* path, const char* mode)
{
    if (scripted == nullptr || std::strcmp(path, "/proc/cmdline") != 0)
        return real<FILE*(const char*, const char*)>("fopen")(path, mode);
    if (!scripted->command_line)
        return nullptr;
    return fmemopen(scripted->command_line->data(), scripted->command_line->size(), "r");
}

std::string attribute(unsigned short type, const std::string& payload)
{
    const rtattr header{static_cast<unsigned short>(RTA_LENGTH(payload.size())), type};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    bytes += payload;
    bytes.resize(RTA_SPACE(payload.size()));
    return bytes;
}

std::string address_bytes(const char* text)
{
    const int family = std::strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    std::string bytes(family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr), '\0');
    EXPECT_EQ(inet_pton(family, text, bytes.data()), 1) << text;
    return bytes;
}

std::string address_message(const char* address, unsigned char prefix_length)
{
    const std::string bytes = address_bytes(address);
    ifaddrmsg header{};
    header.ifa_family = bytes.size() == sizeof(in_addr) ? AF_INET : AF_INET6;
    header.ifa_prefixlen = prefix_length;
    header.ifa_flags = IFA_F_PERMANENT;
    header.ifa_index = ETH0_INDEX;
    std::string attributes = attribute(IFA_ADDRESS, bytes);
    if (header.ifa_family == AF_INET)
        attributes += attribute(IFA_LOCAL, bytes) + attribute(IFA_LABEL, std::string("eth0\0", 5));
    return netlink_message(RTM_NEWADDR, header, attributes);
}

std::string stateless_address_message(const char* address)
{
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = 64;
    header.ifa_scope = RT_SCOPE_UNIVERSE;
    header.ifa_index = ETH0_INDEX;
    return netlink_message(RTM_NEWADDR, header, attribute(IFA_ADDRESS, address_bytes(address)));
}

std::string link_message(const std::string& mac)
{
    ifinfomsg header{};
    header.ifi_index = ETH0_INDEX;
    return netlink_message(RTM_NEWLINK, header, attribute(IFLA_ADDRESS, mac));
}

std::string done_message()
{
    return netlink_message(NLMSG_DONE, int{0}, "");
}

ScriptedKernel::ScriptedKernel()
{
    scripted = this;
}

ScriptedKernel::~ScriptedKernel()
{
    scripted = nullptr;
}

void ScriptedKernel::set_addresses(int family, const std::vector<std::string>& messages)
{
    std::string datagram;
    for (const std::string& message : messages)
        datagram += message;
    datagrams[{RTM_GETADDR, family}] = {datagram + done_message()};
}
