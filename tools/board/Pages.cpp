#include "tools/board/Pages.h"

#include <stdexcept>

#include "tools/board/Answers.h"
#include "tools/board/Assets.h"
#include "tools/board/Json.h"
#include "tools/board/QrCode.h"

namespace {

bool BeginsWith(const std::string& text, const std::string& begin) {
    return text.compare(0, begin.size(), begin) == 0;
}

// The lamp's page has the others above it, but /wall stands beside them.
std::string WithoutFolder(std::string_view page) {
    std::string text(page);
    for (size_t at = text.find("../"); at != text.npos; at = text.find("../", at)) {
        text.erase(at, 3);
    }
    return text;
}

HttpResponse Manifest(const HttpRequest& request) {
    const std::string page = request.Field("page").value_or("");
    if (!BeginsWith(page, "lamp/") && !BeginsWith(page, "wall")) {
        throw std::invalid_argument("page is neither a lamp nor a wall");
    }
    const std::string name = request.Field("name").value_or("Lamp");
    Json icons = Json::array();
    for (const char* const size : {"192", "512"}) {
        icons.push_back({{"src", "icon-" + std::string(size) + ".png"},
                         {"sizes", std::string(size) + "x" + size},
                         {"type", "image/png"}});
    }
    icons.push_back({{"src", "icon.svg"}, {"sizes", "any"}, {"type", "image/svg+xml"}});
    HttpResponse response = Answer(Dump({{"name", name},
                                         {"short_name", name},
                                         {"start_url", page},
                                         {"id", page},
                                         {"scope", "./"},
                                         {"display", "fullscreen"},
                                         {"background_color", "#000000"},
                                         {"theme_color", "#000000"},
                                         {"icons", icons}}) +
                                   "\n");
    response.type = "application/manifest+json";
    return response;
}

HttpResponse QrPicture(const HttpRequest& request) {
    const std::optional<std::string> picture = QrSvg(request.Field("text").value_or(""));
    if (!picture) {
        return Fail(400, "text has no byte, or more than " + std::to_string(MAX_QR_TEXT));
    }
    HttpResponse response = Answer(*picture);
    response.type = "image/svg+xml";
    return response;
}

}  // namespace

HttpResponse ServePage(const HttpRequest& request) {
    const std::string& path = request.path;
    if (path == "/manifest") {
        return Manifest(request);
    }
    if (path == "/qr.svg") {
        return QrPicture(request);
    }
    const bool lamp = BeginsWith(path, "/lamp/") || BeginsWith(path, "/wall/");
    const Asset* const asset = FindAsset(lamp || path == "/wall" ? "/lamp.html" : path);
    if (asset == nullptr) {
        return Fail(404, "no such page");
    }
    HttpResponse response;
    response.type = std::string(asset->type);
    response.fixed = asset->bytes;
    if (path == "/wall") {
        response.fixed = {};
        response.body = WithoutFolder(asset->bytes);
    }
    response.headers = {{"ETag", std::string(asset->tag)}, {"Cache-Control", "no-cache"}};
    response.status = request.Header("if-none-match") == asset->tag ? 304 : 200;
    return response;
}
