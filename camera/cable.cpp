// camera-cable: the Ethernet cable between the camera's TAP and the LAN's.
//
// usage: camera-cable CONTROL_FD CAMERA_FD LAN_FD
//
// Passes frames both ways, and sleeps when there are none. CONTROL_FD is a SEQPACKET socket that takes "cut"
// and "join" and answers "ok" or the errno; when it closes, the program ends. Cutting takes the carrier from
// the camera's end only: the LAN's end is a switch port that stays up.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

constexpr size_t MAX_FRAME = 65536 + 64;
constexpr int FRAMES_IN_A_ROW = 256; // then the other direction has its turn

// A frame that the other side does not take (its interface is down) is lost, as on any cable.
void pass_frames(int from, int to, bool joined)
{
    static char frame[MAX_FRAME];
    for (int i = 0; i < FRAMES_IN_A_ROW; ++i) {
        const ssize_t length = read(from, frame, sizeof frame);
        if (length <= 0)
            return;
        if (joined) {
            [[maybe_unused]] const ssize_t written = write(to, frame, static_cast<size_t>(length));
        }
    }
}

std::string carry_out(std::string_view command, int camera, bool& joined)
{
    if (command != "cut" && command != "join")
        return std::to_string(EINVAL);
    joined = command == "join";
    int carrier = joined ? 1 : 0;
    if (ioctl(camera, TUNSETCARRIER, &carrier) != 0)
        return std::to_string(errno);
    return "ok";
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    const int control = atoi(argv[1]);
    const int camera = atoi(argv[2]);
    const int lan = atoi(argv[3]);
    fcntl(camera, F_SETFL, O_NONBLOCK);
    fcntl(lan, F_SETFL, O_NONBLOCK);
    bool joined = true;
    pollfd waiting[] = {{control, POLLIN, 0}, {camera, POLLIN, 0}, {lan, POLLIN, 0}};
    while (true) {
        if (poll(waiting, 3, -1) < 0 && errno != EINTR)
            return 1;
        if (((waiting[1].revents | waiting[2].revents) & (POLLERR | POLLHUP | POLLNVAL)) != 0)
            return 1;
        if (waiting[1].revents != 0)
            pass_frames(camera, lan, joined);
        if (waiting[2].revents != 0)
            pass_frames(lan, camera, joined);
        if (waiting[0].revents == 0)
            continue;
        char command[16];
        const ssize_t length = recv(control, command, sizeof command, 0);
        if (length <= 0)
            return 0;
        const std::string answer = carry_out({command, static_cast<size_t>(length)}, camera, joined);
        send(control, answer.data(), answer.size(), MSG_NOSIGNAL);
    }
}
