// GzipDecompress on any bytes, into buffers of many sizes, against zlib fed byte by byte. The input is what
// ought to be a gzip member.
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Input.h"
#include "Judge.h"
#include "VCompressAndDeCompress.h"

namespace {

constexpr std::size_t kLongestText = 65536;
constexpr int kGzipWindowBits = 15 + 16;
constexpr std::size_t kTrailerWord = 4;

// zlib is not instrumented, so its progress is told to the engine here: the states it goes through, and the
// ways in which it refuses. The engine keeps an input that makes a new counter move.
constexpr std::size_t kStates = 512;
constexpr std::size_t kRefusals = 64;
constexpr std::size_t kLengths = 20;
__attribute__((section("__libfuzzer_extra_counters"), used))
std::uint8_t progress[kStates + kRefusals + kLengths];

void Count(std::size_t first, std::size_t count, std::size_t which) {
    std::uint8_t& counter = progress[first + which % count];
    if (counter < 255) ++counter;
}

enum class Ending { kWhole, kDamaged, kCutShort, kTooLong };

// What is in a member, as far as it can be read.
struct Truth {
    Ending ending = Ending::kCutShort;
    std::string text;
    std::size_t bytesTaken = 0;
    std::string refusal;
};

// Inflates until zlib does not get on; returns its status.
int InflateSome(z_stream& stream, int flush, std::string& text) {
    int status = Z_OK;
    while (status == Z_OK && text.size() <= kLongestText) {
        char block[1024];
        stream.next_out = reinterpret_cast<Bytef*>(block);
        stream.avail_out = sizeof(block);
        status = inflate(&stream, flush);
        text.append(block, sizeof(block) - stream.avail_out);
        Count(0, kStates, static_cast<std::size_t>(stream.data_type));
    }
    return status;
}

// The same for one more byte of input. Stopping at each block shows more of zlib's states, but leaves bits
// behind that may hold the next block.
int InflateByte(z_stream& stream, char byte, std::string& text) {
    Bytef input = static_cast<Bytef>(byte);
    stream.next_in = &input;
    stream.avail_in = 1;
    const int status = InflateSome(stream, Z_BLOCK, text);
    return status == Z_BUF_ERROR ? InflateSome(stream, Z_NO_FLUSH, text) : status;
}

std::size_t Sum(const std::string& text) {
    std::size_t sum = 0;
    for (const char character : text) sum = sum * 31 + static_cast<unsigned char>(character);
    return sum;
}

Truth InflateByteByByte(const std::string& member) {
    Truth truth;
    z_stream stream = {};
    if (inflateInit2(&stream, kGzipWindowBits) != Z_OK) judge::Fail("zlib does not start");

    int status = Z_BUF_ERROR;
    while (status == Z_BUF_ERROR && truth.bytesTaken < member.size() && truth.text.size() <= kLongestText) {
        status = InflateByte(stream, member[truth.bytesTaken++], truth.text);
    }
    if (status == Z_STREAM_END) truth.ending = Ending::kWhole;
    if (status == Z_DATA_ERROR) truth.ending = Ending::kDamaged;
    if (truth.text.size() > kLongestText) truth.ending = Ending::kTooLong;
    if (stream.msg != nullptr) truth.refusal = stream.msg;
    (void)inflateEnd(&stream);

    if (!truth.refusal.empty()) Count(kStates, kRefusals, Sum(truth.refusal));
    for (std::size_t size = truth.text.size(), bits = 0; size > 0; size /= 2, ++bits) {
        Count(kStates + kRefusals, kLengths, bits);
    }
    return truth;
}

void JudgeCapacity(const ExactBlock& member, const Truth& truth, std::size_t capacity) {
    const ExactBlock text(capacity);
    const int result =
        VCompressAndDeCompress::GzipDecompress(member.Data(), member.Length(), text.Data(), text.Length());

    if (truth.ending == Ending::kWhole && capacity >= truth.text.size()) {
        judge::Equal("the length", result, static_cast<int>(truth.text.size()));
        judge::Equal("the text", text.Bytes().substr(0, truth.text.size()), truth.text);
    } else if (truth.ending == Ending::kDamaged && capacity > truth.text.size()) {
        judge::Equal("the result for a damaged member", result, Z_DATA_ERROR);
    } else if (truth.ending == Ending::kDamaged && capacity == truth.text.size()) {
        // The buffer is full when the damage is met; either may be seen first.
        judge::Holds("a damaged member fails", result == Z_DATA_ERROR || result == Z_BUF_ERROR);
    } else {
        judge::Equal("the result for a member that is cut short or does not fit", result, Z_BUF_ERROR);
    }
}

void JudgeMember(const std::string& bytes, const Truth& truth) {
    const ExactBlock member(bytes);
    const std::size_t length = truth.text.size();
    for (const std::size_t capacity :
         {std::size_t{0}, std::size_t{1}, length / 2, length - 1, length, length + 1, length + 300}) {
        if (capacity <= kLongestText) JudgeCapacity(member, truth, capacity);
    }
}

// Puts the right check or length into the trailer, if that is all that is wrong: no mutation would find it.
bool MendTrailer(std::string& member, const Truth& truth) {
    uLong word = 0;
    if (truth.refusal == "incorrect data check") {
        word =
            crc32(0, reinterpret_cast<const Bytef*>(truth.text.data()), static_cast<uInt>(truth.text.size()));
    } else if (truth.refusal == "incorrect length check") {
        word = truth.text.size();
    } else {
        return false;
    }
    for (std::size_t i = 0; i < kTrailerWord; ++i) {
        member[truth.bytesTaken - kTrailerWord + i] = static_cast<char>(word >> (8 * i) & 0xff);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string member = BytesOf(data, size);
    Truth truth = InflateByteByByte(member);
    JudgeMember(member, truth);

    bool isMended = false;
    while (MendTrailer(member, truth)) {
        truth = InflateByteByByte(member);
        isMended = true;
    }
    if (isMended) JudgeMember(member, truth);
    return 0;
}
