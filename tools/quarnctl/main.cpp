#include "command_line.h"
#include "report.h"

#include <fcntl.h>

#include <clocale>
#include <cstdio>

namespace {

// Where one of the three is closed the bus would take its number, and with it what is printed. What takes the
// place here can be used in the wrong direction only, so that every use fails as that of a closed one does.
bool fill_closed_streams()
{
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", descriptor == 0 ? O_WRONLY : O_RDONLY) < 0)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (!fill_closed_streams())
        return quarnctl::REFUSED;
    // For the names of shell patterns and the texts of system errors; numbers are JSON's in every locale.
    std::setlocale(LC_CTYPE, "");
    const int status = quarnctl::run_command_line(argc, argv);
    // A script must not take half an export for the whole of it.
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return status;
    quarnctl::complain("the result cannot be written to standard output");
    return status == quarnctl::DONE ? quarnctl::REFUSED : status;
}
