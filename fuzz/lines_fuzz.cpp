// The line client. Each part of the input arrives at once.
#include <netinet/in.h>

#include "fuzz/Check.h"
#include "fuzz/LineModel.h"
#include "fuzz/Net.h"
#include "fuzz/Script.h"
#include "tqr/tqrcli.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static TcpPeer server(0);
    const int sizes[] = {2000, 40, 1};
    const int line_size = sizes[size % 3];
    CTQRClient client;
    CHECK(client.open(htonl(INADDR_LOOPBACK), static_cast<short>(server.Port()), line_size) != -1);
    server.Accept(client.get_fd());
    LineModel model(static_cast<size_t>(line_size));
    for (const std::string& part : split_script(data, size)) {
        server.Send(part);
        await_bytes(client.get_fd(), part.size());
        const std::vector<std::string> expected = model.Feed(part);
        std::vector<std::string> lines;
        do {
            while (const char* line = client.recv(0)) {
                if (*line != '\0') {
                    lines.emplace_back(line);
                }
            }
        } while (client.get_fd() != -1 && is_readable(client.get_fd()));
        CHECK(lines == expected);
        CHECK((client.get_fd() == -1) == model.IsClosed());
        if (model.IsClosed()) {
            CHECK(client.send("x") == -1);
            break;
        }
    }
    server.Reset();
    if (!model.IsClosed()) {
        await_readable(client.get_fd());
        CHECK(client.recv(0) == nullptr);
        CHECK(client.get_fd() == -1);
    }
    return 0;
}
