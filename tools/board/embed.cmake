# Writes a source file that contains the files of a folder, and another file:
#   cmake -DFOLDER=... -DMORE=... -DOUT=... -P embed.cmake
set(types .html "text/html; charset=utf-8" .css "text/css; charset=utf-8"
          .js "text/javascript; charset=utf-8" .svg "image/svg+xml" .png "image/png"
          .json "application/json")
file(GLOB files ${FOLDER}/*)
list(SORT files)
list(APPEND files ${MORE})
set(arrays "")
set(rows "")
set(number 0)
foreach(file ${files})
  get_filename_component(name ${file} NAME)
  file(READ ${file} hex HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(.....................................................................................)" "\\1\n" bytes "${bytes}")
  file(SHA256 ${file} tag)
  string(SUBSTRING ${tag} 0 16 tag)
  get_filename_component(extension ${name} EXT)
  list(FIND types ${extension} index)
  math(EXPR index "${index} + 1")
  list(GET types ${index} type)
  string(APPEND arrays "const unsigned char file${number}[] = {${bytes}};\n")
  set(path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND rows "    {\"${path}\", \"${type}\", Bytes(file${number}), \"\\\"${tag}\\\"\"},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "#include \"tools/board/Assets.h\"

namespace {

template <unsigned long N>
std::string_view Bytes(const unsigned char (&file)[N]) {
    return {reinterpret_cast<const char*>(file), N};
}

${arrays}
const Asset ASSETS[] = {
${rows}};

}  // namespace

const Asset* FindAsset(std::string_view path) {
    for (const Asset& asset : ASSETS) {
        if (asset.path == path) {
            return &asset;
        }
    }
    return nullptr;
}
")
