# Writes the page's files into a C++ source: cmake -DFOLDER=... -DNAMES=... -DTO=... -P embed.cmake
set(entries "")
foreach(name IN LISTS NAMES)
    file(READ "${FOLDER}/${name}" text)
    file(SHA256 "${FOLDER}/${name}" digest)
    string(SUBSTRING "${digest}" 0 16 tag)
    string(APPEND entries "    {\"${name}\", \"\\\"${tag}\\\"\", R\"gwrelay_page(${text})gwrelay_page\"},\n")
endforeach()
file(WRITE "${TO}" "// Made by embed.cmake from relay/page/static.\n"
    "#include \"page/files.h\"\n\nconst std::vector<page_file> PAGE_FILES = {\n${entries}};\n")
