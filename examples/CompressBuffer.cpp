// Compresses a text in memory, as a zlib stream and as a gzip member, and reads the member back.
//
//     c++ -std=c++17 -o CompressBuffer CompressBuffer.cpp $(pkg-config --cflags --libs VFileSys) -lz
//     CompressBuffer "some text"
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "VCompressAndDeCompress.h"

namespace {

int Fail(const char* operation) {
    std::fprintf(stderr, "%s failed\n", operation);
    return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2 || argv[1][0] == '\0') {
        std::fprintf(stderr, "usage: %s TEXT\n", argv[0]);
        return 2;
    }
    const char* const text = argv[1];
    const int length = static_cast<int>(std::strlen(text));

    // First ask for the capacity, then compress. The NUL of the text is compressed with it.
    int packedLength = 0;
    if (VCompressAndDeCompress::CompressString(text, length, nullptr, &packedLength) != 0)
        return Fail("CompressString");
    std::vector<char> packed(static_cast<std::size_t>(packedLength));
    if (VCompressAndDeCompress::CompressString(text, length, packed.data(), &packedLength) != 0)
        return Fail("CompressString");
    std::printf("%d bytes with the NUL make %d as a zlib stream\n", length + 1, packedLength);

    // With this much room no input can be left over, so a positive result is the member's length.
    std::vector<char> member(compressBound(static_cast<uLong>(length)) + 18);
    const int memberLength =
        VCompressAndDeCompress::GzipCompress(text, length, member.data(), static_cast<int>(member.size()));
    if (memberLength < 0) return Fail("GzipCompress");
    std::printf("%d bytes make %d as a gzip member\n", length, memberLength);

    // The text's length has to be known from elsewhere, or the buffer made larger after Z_BUF_ERROR.
    std::string again(static_cast<std::size_t>(length), '\0');
    const int againLength =
        VCompressAndDeCompress::GzipDecompress(member.data(), memberLength, again.data(), length);
    if (againLength != length || again != text) return Fail("GzipDecompress");
    std::printf("and back: %s\n", again.c_str());
    return 0;
}
