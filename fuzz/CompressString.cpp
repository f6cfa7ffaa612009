// What CompressString packs, zlib's uncompress unpacks. The last byte of the input is the one behind the
// text, which goes in as well; nothing behind it may be read.
#include <zlib.h>

#include <string>
#include <string_view>

#include "Input.h"
#include "Judge.h"
#include "VCompressAndDeCompress.h"

namespace {

constexpr int kFailure = -10000;

int CapacityFor(const ExactBlock& source, int sourceLength) {
    int capacity = -1;
    judge::Equal("the status of the question for the capacity",
                 VCompressAndDeCompress::CompressString(source.Data(), sourceLength, nullptr, &capacity), 0);
    judge::Equal("the capacity", static_cast<uLong>(capacity),
                 compressBound(static_cast<uLong>(source.Size())));
    return capacity;
}

std::string UncompressedByZlib(const ExactBlock& packed, std::size_t size) {
    const ExactBlock text(size);
    uLongf length = static_cast<uLongf>(size);
    judge::Equal("zlib's status",
                 uncompress(reinterpret_cast<Bytef*>(text.Data()), &length,
                            reinterpret_cast<const Bytef*>(packed.Data()), static_cast<uLong>(packed.Size())),
                 Z_OK);
    judge::Equal("zlib's length", static_cast<std::size_t>(length), size);
    return text.Bytes();
}

void JudgeTooSmall(const ExactBlock& source, int sourceLength, int capacity) {
    const ExactBlock room(capacity > 0 ? static_cast<std::size_t>(capacity) : 0);
    int length = capacity;
    judge::Equal("the status for a buffer that is too small",
                 VCompressAndDeCompress::CompressString(source.Data(), sourceLength, room.Data(), &length),
                 kFailure);
    judge::Equal("the capacity after that", length, capacity);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = BytesOf(data, size);
    const ExactBlock source(bytes);
    const int sourceLength = source.Length() - 1;
    if (sourceLength < 1) {
        int untouched = 7;
        judge::Equal("the status for an empty text",
                     VCompressAndDeCompress::CompressString(source.Data(), sourceLength, nullptr, &untouched),
                     kFailure);
        judge::Equal("the length cell after that", untouched, 7);
        return 0;
    }

    const int capacity = CapacityFor(source, sourceLength);
    const ExactBlock room(static_cast<std::size_t>(capacity));
    int length = capacity;
    judge::Equal("the status",
                 VCompressAndDeCompress::CompressString(source.Data(), sourceLength, room.Data(), &length),
                 0);
    judge::Holds("the length fits the capacity", length > 0 && length <= capacity);
    judge::Equal("the text after the call", source.Bytes(), bytes);

    const ExactBlock packed(std::string_view(room.Data(), static_cast<std::size_t>(length)));
    judge::Equal("the text that comes back, with the byte behind it",
                 UncompressedByZlib(packed, bytes.size()), bytes);
    for (const int tooSmall : {capacity - 1, length - 1, 0, -1})
        JudgeTooSmall(source, sourceLength, tooSmall);
    return 0;
}
