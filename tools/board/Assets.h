// The files of the page, embedded into the program when it is built.
#pragma once

#include <string_view>

struct Asset {
    std::string_view path;  // "/board.css"
    std::string_view type;
    std::string_view bytes;
    std::string_view tag;  // changes with the content
};

// Null if there is none.
const Asset* FindAsset(std::string_view path);
