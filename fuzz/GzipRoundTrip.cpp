// What GzipCompress packs, GzipDecompress and zlib's own inflate unpack. The first byte of the input says how
// often the rest stands one behind the other: '1' to '9', any other byte by its number.
#include <zlib.h>

#include <string>
#include <string_view>

#include "Input.h"
#include "Judge.h"
#include "VCompressAndDeCompress.h"

namespace {

constexpr std::size_t kLongestText = 262144;
constexpr int kGzipWindowBits = 15 + 16;
constexpr std::size_t kGzipFrame = 18;
constexpr int kFailure = -10000;

std::string TextOfInput(const std::string& input) {
    if (input.empty()) return "";
    const auto first = static_cast<unsigned char>(input[0]);
    const std::size_t times = first >= '1' && first <= '9' ? first - std::size_t{'0'} : first;
    std::string text;
    for (std::size_t i = 0; i < times && text.size() + input.size() <= kLongestText; ++i) {
        text.append(input, 1, std::string::npos);
    }
    return text;
}

std::string InflatedByZlib(const ExactBlock& member, std::size_t textSize) {
    const ExactBlock text(textSize + 1);
    z_stream stream = {};
    stream.next_in = reinterpret_cast<Bytef*>(member.Data());
    stream.avail_in = static_cast<uInt>(member.Size());
    stream.next_out = reinterpret_cast<Bytef*>(text.Data());
    stream.avail_out = static_cast<uInt>(text.Size());
    judge::Equal("zlib's start", inflateInit2(&stream, kGzipWindowBits), Z_OK);
    judge::Equal("zlib's status", inflate(&stream, Z_FINISH), Z_STREAM_END);
    judge::Equal("what zlib left of the member", stream.avail_in, 0U);
    const std::size_t length = stream.total_out;
    (void)inflateEnd(&stream);
    return text.Bytes().substr(0, length);
}

// A buffer of every kind of size that is too small: the result is what was left of the input, or a failure.
void JudgeSmallBuffers(const ExactBlock& source, std::size_t memberSize) {
    for (const std::size_t capacity : {std::size_t{0}, std::size_t{1}, std::size_t{10}, memberSize / 2,
                                       memberSize - 9, memberSize - 8, memberSize - 1}) {
        if (capacity >= memberSize) continue;
        const ExactBlock small(capacity);
        const int result = VCompressAndDeCompress::GzipCompress(source.Data(), source.Length(), small.Data(),
                                                                small.Length());
        const bool isRest = result >= 1 && result <= source.Length();
        judge::Holds("a buffer that is too small gives a failure, or the number of bytes left over",
                     result == kFailure || isRest);
        if (capacity == 0) judge::Equal("what is left over without a buffer", result, source.Length());
    }
}

void JudgeMember(const ExactBlock& source, const ExactBlock& member) {
    const std::string expected = source.Bytes();
    judge::Equal("the magic number", member.Bytes().substr(0, 2), std::string("\x1f\x8b"));
    judge::Equal("zlib's text", InflatedByZlib(member, expected.size()), expected);

    const ExactBlock text(expected.size());
    judge::Equal(
        "the result of GzipDecompress",
        VCompressAndDeCompress::GzipDecompress(member.Data(), member.Length(), text.Data(), text.Length()),
        source.Length());
    judge::Equal("the text of GzipDecompress", text.Bytes(), expected);

    const ExactBlock again(member.Size());
    judge::Equal(
        "the result for a buffer of just the right size",
        VCompressAndDeCompress::GzipCompress(source.Data(), source.Length(), again.Data(), again.Length()),
        member.Length());
    judge::Equal("the member in that buffer", again.Bytes(), member.Bytes());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = TextOfInput(BytesOf(data, size));
    const ExactBlock source(text);
    const ExactBlock room(compressBound(static_cast<uLong>(text.size())) + kGzipFrame);
    const int result =
        VCompressAndDeCompress::GzipCompress(source.Data(), source.Length(), room.Data(), room.Length());
    if (text.empty()) {
        judge::Equal("the result for an empty text", result, kFailure);
        return 0;
    }
    judge::Holds("the member fits the bound", result > 0 && result <= room.Length());
    judge::Equal("the text after the call", source.Bytes(), text);

    const ExactBlock member(std::string_view(room.Data(), static_cast<std::size_t>(result)));
    JudgeMember(source, member);
    JudgeSmallBuffers(source, member.Size());
    return 0;
}
