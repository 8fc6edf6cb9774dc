// orvexctl: the command-line client of the bus.

#include "tools/bus/BusError.h"
#include "tools/ctl/ExitStatus.h"
#include "tools/ctl/Options.h"

int main(int argc, char** argv) {
    Options options;
    int status = STATUS_DONE;
    const CommandSpec* const command = ParseCommandLine(argc, argv, options, status);
    if (command == nullptr) {
        return status;
    }
    options.bus.trace = [&](const std::string& text) { options.console.Detail(text); };
    try {
        return command->run(options);
    } catch (const BusError& error) {
        options.console.Error(error.what());
        return error.GetKind() == BusError::Kind::NoAcknowledgement ? STATUS_NO_ANSWER
                                                                    : STATUS_FAILED;
    } catch (const Failure& failure) {
        options.console.Error(failure.what());
        return failure.status;
    }
}
