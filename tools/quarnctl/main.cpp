#include "command_line.h"

#include <clocale>

int main(int argc, char** argv)
{
    // For the names of shell patterns and the texts of system errors; numbers are JSON's in every locale.
    std::setlocale(LC_CTYPE, "");
    return quarnctl::run_command_line(argc, argv);
}
