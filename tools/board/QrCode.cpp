#include "tools/board/QrCode.h"

#include <qrencode.h>

#include <memory>

namespace {

const int MARGIN = 4;  // modules

}  // namespace

std::optional<std::string> QrSvg(const std::string& text) {
    if (text.empty() || text.size() > MAX_QR_TEXT) {
        return std::nullopt;
    }
    const std::unique_ptr<QRcode, void (*)(QRcode*)> code(
        QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_M), QRcode_free);
    if (!code) {
        return std::nullopt;
    }
    std::string path;
    for (int y = 0; y < code->width; ++y) {
        for (int x = 0; x < code->width; ++x) {
            if ((code->data[y * code->width + x] & 1) != 0) {
                path += "M" + std::to_string(x) + " " + std::to_string(y) + "h1v1h-1z";
            }
        }
    }
    const std::string margin = std::to_string(-MARGIN);
    const std::string size = std::to_string(code->width + 2 * MARGIN);
    const std::string box = margin + " " + margin + " " + size + " " + size;
    return R"(<svg xmlns="http://www.w3.org/2000/svg" shape-rendering="crispEdges" viewBox=")" +
           box + R"("><path fill="#fff" d="M)" + margin + " " + margin + "h" + size + "v" + size +
           "h-" + size + R"(z"/><path d=")" + path + "\"/></svg>\n";
}
