# SPDX-License-Identifier: Apache-2.0
# Writes a C++ source that contains the bytes of a file:
#   cmake -D INPUT=FILE -D OUTPUT=SOURCE -D HEADER=FILE -D FUNCTION=NAME -P embed.cmake
# The source defines std::string_view memleak::NAME(), which HEADER declares.
file(READ "${INPUT}" bytes HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
file(WRITE "${OUTPUT}" "#include \"${HEADER}\"

namespace memleak {
namespace {

constexpr unsigned char kBytes[] = {${bytes}};

}  // namespace

std::string_view ${FUNCTION}() { return {reinterpret_cast<const char*>(kBytes), sizeof(kBytes)}; }

}  // namespace memleak
")
