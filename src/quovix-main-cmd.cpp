// Program entry: hands the command line to the front end.
#include <cstdio>
#include <exception>

#include "quovix-cmd.hpp"

int main(int argc, char **argv) {
    try {
        return quovix_cmd_start(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "Error: %s.\n", e.what());
    } catch (...) {
        std::fputs("Error: unexpected failure.\n", stderr);
    }
    return 1;
}
