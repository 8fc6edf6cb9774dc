// orvexctl: the command-line client of the bus.

#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"

int main(int argc, char** argv) {
    Options options;
    int status = STATUS_DONE;
    const CommandSpec* const command = ParseCommandLine(argc, argv, options, status);
    if (command == nullptr) {
        return status;
    }
    try {
        return command->run(options);
    } catch (const Failure& failure) {
        options.console.Error(failure.what());
        return failure.status;
    }
}
