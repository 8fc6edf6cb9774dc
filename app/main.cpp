#include "app/orvex.h"

int main(int argc, char** argv) {
    open_standard_streams();
    parse_commands(argc, argv);
    read_environment();
    if (!start(argc > 0 ? argv[0] : APP_NAME)) {
        return 1;
    }
    CMainLoop loop;
    loop.TellReady();
    while (loop.Turn()) {
    }
    return 2;
}
