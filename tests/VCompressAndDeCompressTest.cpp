#include "VCompressAndDeCompress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Process.h"
#include "Resources.h"
#include "ScratchDirectory.h"
#include "SystemCalls.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_same_v<decltype(&VCompressAndDeCompress::CompressString),
                             int (*)(const char*, int, char*, int*)>);
static_assert(
    std::is_same_v<decltype(&VCompressAndDeCompress::GzipCompress), int (*)(const char*, int, char*, int)>);
static_assert(
    std::is_same_v<decltype(&VCompressAndDeCompress::GzipDecompress), int (*)(const char*, int, char*, int)>);
static_assert(!std::is_default_constructible_v<VCompressAndDeCompress>);
static_assert(!std::is_polymorphic_v<VCompressAndDeCompress> && std::is_empty_v<VCompressAndDeCompress>);

constexpr int kHardError = 1;
constexpr int kInformation = 3;

constexpr int kMebibyte = 1 << 20;
constexpr uInt kWholeUInt = std::numeric_limits<uInt>::max();

LogLine Line(const std::string& function, int level, const std::string& format, const std::string& text) {
    return {"BaseAPI/VFileSys/src/VCompressAndDeCompress", function, level, format, text};
}

LogLine NeedMoreMemoryLine(const std::string& numbers) {
    return Line("CompressString", kHardError, "need more memory, given len=%d, need len=%d",
                "need more memory, " + numbers);
}
LogLine CompressErrorLine(const std::string& numbers) {
    return Line("CompressString", kHardError, "compress str error, srcLen=%d,dstLen=%d",
                "compress str error, " + numbers);
}
LogLine GzipCompressLine() {
    return Line("GzipCompress", kInformation, "gzip compress success.", "gzip compress success.");
}
LogLine GzipDecompressLine() {
    return Line("GzipDecompress", kInformation, "gzip decompress success.", "gzip decompress success.");
}

// Bytes that don't compress; the same ones every time.
std::string Noise(int size, unsigned seed = 1) {
    std::mt19937_64 random(seed);
    std::string bytes(static_cast<std::size_t>(size), '\0');
    std::size_t at = 0;
    for (; at + 8 <= bytes.size(); at += 8) {
        const std::uint64_t value = random();
        bytes.replace(at, 8, reinterpret_cast<const char*>(&value), 8);
    }
    for (; at < bytes.size(); ++at) bytes[at] = static_cast<char>(random());
    return bytes;
}

// Bytes that compress well.
std::string Text(int size) {
    const std::string line = "2024-05-06 07:08:09 server started, nothing to report\n";
    std::string text;
    text.reserve(static_cast<std::size_t>(size));
    while (text.size() + line.size() < static_cast<std::size_t>(size)) text += line;
    return text.append(line, 0, static_cast<std::size_t>(size) - text.size());
}

int Length(const std::string& text) {
    return static_cast<int>(text.size());
}
Bytef* Bytes(const std::string& text) {
    return reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
}

// A buffer whose neighbouring bytes must stay as they are.
class GuardedBuffer {
public:
    explicit GuardedBuffer(int capacity)
        : bytes_(static_cast<std::size_t>(capacity) + 2 * kMargin, kUnused), capacity_(capacity) {}
    ~GuardedBuffer() {
        const std::string margin(kMargin, kUnused);
        EXPECT_EQ(bytes_.substr(0, kMargin), margin) << "bytes before the buffer";
        EXPECT_EQ(bytes_.substr(bytes_.size() - kMargin), margin) << "bytes behind the buffer";
    }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    char* Data() { return bytes_.data() + kMargin; }
    int Capacity() const { return capacity_; }
    std::string First(int count) const { return bytes_.substr(kMargin, static_cast<std::size_t>(count)); }
    bool IsUnused() const { return bytes_.find_first_not_of(kUnused) == std::string::npos; }

private:
    static constexpr char kUnused = '\x5a';
    static constexpr std::size_t kMargin = 64;

    std::string bytes_;
    int capacity_;
};

// Always enough for the gzip member.
int GzipCapacity(const std::string& data) {
    return static_cast<int>(compressBound(data.size())) + 18;
}

std::string GzipMemberOf(const std::string& data) {
    std::string member(static_cast<std::size_t>(GzipCapacity(data)), '\0');
    const int length =
        VCompressAndDeCompress::GzipCompress(data.data(), Length(data), member.data(), Length(member));
    EXPECT_GT(length, 0);
    member.resize(static_cast<std::size_t>(std::max(length, 0)));
    return member;
}

// The content of a member that is known to hold `size` bytes.
std::string ContentOf(const std::string& member, int size) {
    std::string data(static_cast<std::size_t>(size), '\0');
    EXPECT_EQ(
        VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), data.data(), Length(data)),
        size);
    return data;
}

// What zlib itself makes of the data with these window bits: 15 for a zlib stream, 31 for a gzip member,
// -15 for neither wrapper.
std::string Deflated(const std::string& data, int windowBits, int level = Z_DEFAULT_COMPRESSION) {
    z_stream stream = {};
    EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string output(deflateBound(&stream, data.size()) + 32, '\0');
    stream.next_in = Bytes(data);
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = Bytes(output);
    stream.avail_out = static_cast<uInt>(output.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    output.resize(stream.total_out);
    EXPECT_EQ(deflateEnd(&stream), Z_OK);
    return output;
}

// What compressing must result in, by zlib alone: the result, and the member if there is one.
struct Outcome {
    int result;
    std::string member;
};

Outcome PlainGzipCompress(const std::string& data, int capacity) {
    if (capacity <= 0) return {Length(data), ""};
    z_stream stream = {};
    EXPECT_EQ(deflateInit2(&stream, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string output(static_cast<std::size_t>(capacity), '\0');
    stream.next_in = Bytes(data);
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = Bytes(output);
    stream.avail_out = static_cast<uInt>(output.size());

    Outcome outcome = {-10000, ""};
    while (stream.avail_in > 0 && stream.avail_out > 0) EXPECT_EQ(deflate(&stream, Z_NO_FLUSH), Z_OK);
    if (stream.avail_in > 0) {
        outcome.result = static_cast<int>(stream.avail_in);
    } else if (deflate(&stream, Z_FINISH) == Z_STREAM_END) {
        outcome.result = static_cast<int>(stream.total_out);
        outcome.member = output.substr(0, stream.total_out);
    }
    (void)deflateEnd(&stream);
    return outcome;
}

// What decompressing must result in, by zlib alone.
int PlainGzipDecompress(const std::string& member, std::string& data) {
    z_stream stream = {};
    EXPECT_EQ(inflateInit2(&stream, 31), Z_OK);
    stream.next_in = Bytes(member);
    stream.avail_in = static_cast<uInt>(member.size());
    stream.next_out = Bytes(data);
    stream.avail_out = static_cast<uInt>(data.size());
    const int status = inflate(&stream, Z_FINISH);
    const int length = static_cast<int>(stream.total_out);
    EXPECT_EQ(inflateEnd(&stream), Z_OK);
    return status == Z_STREAM_END ? length : status;
}

// What a call of deflateInit2_ or inflateInit2_ was given.
struct InitArguments {
    std::vector<int> numbers;
    std::string version;
    bool hasDefaultAllocator = false;
};

bool HasDefaultAllocator(const z_stream& stream) {
    return stream.zalloc == nullptr && stream.zfree == nullptr && stream.opaque == nullptr;
}

class VCompressAndDeCompressTest : public ResourceTest {
protected:
    static std::vector<LogLine> TakeLog() {
        std::vector<LogLine> lines = LogRecorder::Lines();
        LogRecorder::Clear();
        return lines;
    }
};

// Compressions that are begun must be ended: each test counts both sides at zlib's door.
class VCompressAndDeCompressDeflateTest : public VCompressAndDeCompressTest {
protected:
    ~VCompressAndDeCompressDeflateTest() override {
        EXPECT_EQ(ended_, begun_) << "compressions that were not ended";
    }

    int begun_ = 0;
    int ended_ = 0;

private:
    const Replaced<decltype(calls::deflateInit2_)> init_{
        calls::deflateInit2_, [this](z_streamp stream, int level, int method, int windowBits, int memLevel,
                                     int strategy, const char* version, int size) {
            const int status = calls::real::deflateInit2_(stream, level, method, windowBits, memLevel,
                                                          strategy, version, size);
            if (status == Z_OK) ++begun_;
            return status;
        }};
    const Replaced<decltype(calls::deflateEnd)> end_{calls::deflateEnd, [this](z_streamp stream) {
                                                         ++ended_;
                                                         return calls::real::deflateEnd(stream);
                                                     }};
};

// CompressString

TEST_F(VCompressAndDeCompressTest, CompressStringRefusesMissingArgumentsSilently) {
    int compressions = 0;
    const Replaced replaced(calls::compress, [&](Bytef*, uLongf*, const Bytef*, uLong) {
        ++compressions;
        return Z_OK;
    });
    GuardedBuffer dst(100);
    int length = 77;

    for (char* const output : {static_cast<char*>(nullptr), dst.Data()}) {
        EXPECT_EQ(VCompressAndDeCompress::CompressString(nullptr, 5, output, &length), -10000);
        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", 5, output, nullptr), -10000);
        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", 0, output, &length), -10000);
        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", -1, output, &length), -10000);
        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", INT_MIN, output, &length), -10000);
        EXPECT_EQ(VCompressAndDeCompress::CompressString(nullptr, 0, output, nullptr), -10000);
    }

    EXPECT_EQ(length, 77);
    EXPECT_EQ(compressions, 0);
    EXPECT_TRUE(dst.IsUnused());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, CompressStringReportsTheCapacityForOneByteMoreThanTheText) {
    for (const int before : {0, 1, -1, INT_MIN, INT_MAX}) {
        int length = before;
        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", 5, nullptr, &length), 0);
        EXPECT_EQ(length, static_cast<int>(compressBound(6)));
    }
    // Around the lengths at which the bound makes a step.
    for (const int size : {1, 2, 4094, 4095, 4096, 16383, 16384, kMebibyte, 1 << 25, 1 << 30}) {
        SCOPED_TRACE(size);
        int length = 0;
        EXPECT_EQ(VCompressAndDeCompress::CompressString("never read", size, nullptr, &length), 0);
        EXPECT_EQ(length, static_cast<int>(compressBound(static_cast<uLong>(size) + 1)));
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, CompressStringReportsAWrappedCapacityNearTheEndOfInt) {
    const std::vector<std::pair<int, int>> rows = {
        {2146828410, INT_MAX}, {2146828411, INT_MIN}, {INT_MAX - 1, -2146828215}, {INT_MAX, -2146828211}};
    for (const auto& [size, expected] : rows) {
        SCOPED_TRACE(size);
        int length = 0;
        EXPECT_EQ(VCompressAndDeCompress::CompressString("never read", size, nullptr, &length), 0);
        EXPECT_EQ(length, expected);
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, CompressStringRefusesACapacityBelowTheBoundThoughTheResultWouldFit) {
    const std::string text(1000, 'a');
    const int bound = static_cast<int>(compressBound(1001));
    int compressions = 0;
    const Replaced replaced(calls::compress, [&](Bytef*, uLongf*, const Bytef*, uLong) {
        ++compressions;
        return Z_OK;
    });
    ASSERT_LT(Length(Deflated(text, 15)), 100);

    for (const int capacity : {bound - 1, 100, 1, 0}) {
        SCOPED_TRACE(capacity);
        GuardedBuffer dst(bound);
        int length = capacity;

        EXPECT_EQ(VCompressAndDeCompress::CompressString(text.data(), 1000, dst.Data(), &length), -10000);

        EXPECT_EQ(length, capacity);
        EXPECT_TRUE(dst.IsUnused());
        EXPECT_THAT(TakeLog(), ElementsAre(NeedMoreMemoryLine("given len=" + std::to_string(capacity) +
                                                              ", need len=" + std::to_string(bound))));
    }
    EXPECT_EQ(compressions, 0);
}

TEST_F(VCompressAndDeCompressTest, CompressStringRefusesANegativeCapacityAsTooSmall) {
    int compressions = 0;
    const Replaced replaced(calls::compress, [&](Bytef*, uLongf*, const Bytef*, uLong) {
        ++compressions;
        return Z_OK;
    });
    struct Row {
        int size;
        int capacity;
        const char* numbers;
    };
    // From 2146828411 on the bound itself is negative, and may be the smaller one.
    const std::vector<Row> rows = {
        {5, -1, "given len=-1, need len=19"},
        {5, INT_MIN, "given len=-2147483648, need len=19"},
        {2146828410, -1, "given len=-1, need len=2147483647"},
        {2146828411, -1, "given len=-1, need len=-2147483648"},
        {2146828411, INT_MIN, "given len=-2147483648, need len=-2147483648"},
        {INT_MAX, -1, "given len=-1, need len=-2146828211"},
        {INT_MAX, -2146828211, "given len=-2146828211, need len=-2146828211"},
        {INT_MAX, INT_MIN, "given len=-2147483648, need len=-2146828211"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.numbers);
        GuardedBuffer dst(100);
        int length = row.capacity;

        EXPECT_EQ(VCompressAndDeCompress::CompressString("never read", row.size, dst.Data(), &length),
                  -10000);

        EXPECT_EQ(length, row.capacity);
        EXPECT_TRUE(dst.IsUnused());
        EXPECT_THAT(TakeLog(), ElementsAre(NeedMoreMemoryLine(row.numbers)));
    }
    EXPECT_EQ(compressions, 0);
}

TEST_F(VCompressAndDeCompressTest, CompressStringHandsTheCapacityOverInZlibsOwnType) {
    GuardedBuffer dst(100);
    const char* const text = "hello";
    int compressions = 0;
    const Replaced replaced(calls::compress,
                            [&](Bytef* dest, uLongf* destLength, const Bytef* source, uLong sourceLength) {
                                ++compressions;
                                EXPECT_EQ(dest, reinterpret_cast<Bytef*>(dst.Data()));
                                EXPECT_EQ(*destLength, 100UL);
                                EXPECT_EQ(source, reinterpret_cast<const Bytef*>(text));
                                EXPECT_EQ(sourceLength, 6UL);
                                *destLength = 7;
                                return Z_OK;
                            });
    int cells[3] = {111, 100, 222};

    EXPECT_EQ(VCompressAndDeCompress::CompressString(text, 5, dst.Data(), &cells[1]), 0);

    EXPECT_THAT(cells, ElementsAre(111, 7, 222));
    EXPECT_EQ(compressions, 1);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, CompressStringHandsHugeLengthsOverUnwrapped) {
    GuardedBuffer dst(100);
    uLong seenCapacity = 0;
    uLong seenLength = 0;
    const Replaced replaced(calls::compress,
                            [&](Bytef*, uLongf* destLength, const Bytef*, uLong sourceLength) {
                                seenCapacity = *destLength;
                                seenLength = sourceLength;
                                return Z_BUF_ERROR;
                            });
    int length = INT_MAX;

    EXPECT_EQ(VCompressAndDeCompress::CompressString("never read", INT_MAX, dst.Data(), &length), -10000);

    EXPECT_EQ(seenCapacity, 2147483647UL);
    EXPECT_EQ(seenLength, 2147483648UL);
    EXPECT_EQ(length, INT_MAX);
    EXPECT_THAT(TakeLog(), ElementsAre(CompressErrorLine("srcLen=-2147483648,dstLen=2147483647")));
}

TEST_F(VCompressAndDeCompressTest, CompressStringTakesAnyOtherCapacityForEnoughWhenTheBoundHasWrapped) {
    GuardedBuffer dst(100);
    uLong seenCapacity = 1;
    const Replaced replaced(calls::compress, [&](Bytef*, uLongf* destLength, const Bytef*, uLong) {
        seenCapacity = *destLength;
        return Z_BUF_ERROR;
    });
    int length = 0;

    EXPECT_EQ(VCompressAndDeCompress::CompressString("never read", 2146828411, dst.Data(), &length), -10000);

    EXPECT_EQ(seenCapacity, 0UL);
    EXPECT_THAT(TakeLog(), ElementsAre(CompressErrorLine("srcLen=2146828412,dstLen=0")));
}

TEST_F(VCompressAndDeCompressTest, CompressStringLogsTheLengthThatZlibLeftWhenItFails) {
    for (const int code : {Z_MEM_ERROR, Z_BUF_ERROR, Z_STREAM_ERROR, Z_STREAM_END}) {
        SCOPED_TRACE(code);
        const Replaced replaced(calls::compress, [&](Bytef*, uLongf* destLength, const Bytef*, uLong) {
            *destLength = 5;
            return code;
        });
        GuardedBuffer dst(100);
        int length = 100;

        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", 5, dst.Data(), &length), -10000);

        EXPECT_EQ(length, 5);
        EXPECT_THAT(TakeLog(), ElementsAre(CompressErrorLine("srcLen=6,dstLen=5")));
    }
}

TEST_F(VCompressAndDeCompressTest, CompressStringReportsThatZlibGetsNoMemory) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap belongs to a sanitizer here";
    const Replaced replaced(calls::failingMallocSize, 65536U);  // zlib's window
    GuardedBuffer dst(100);

    ExpectNoLeak([&] {
        int length = 100;
        EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", 5, dst.Data(), &length), -10000);
        EXPECT_EQ(LogRecorder::Lines().size(), 1U);
        EXPECT_EQ(LogRecorder::Lines().front().format, "compress str error, srcLen=%d,dstLen=%d");
    });
}

TEST_F(VCompressAndDeCompressTest, CompressStringCompressesTheByteBehindTheTextToo) {
    GuardedBuffer dst(100);
    int length = static_cast<int>(compressBound(6));

    EXPECT_EQ(VCompressAndDeCompress::CompressString("hello", 5, dst.Data(), &length), 0);

    char text[100];
    uLongf textLength = sizeof(text);
    ASSERT_EQ(uncompress(reinterpret_cast<Bytef*>(text), &textLength, Bytes(dst.First(length)),
                         static_cast<uLong>(length)),
              Z_OK);
    EXPECT_EQ(std::string(text, textLength), std::string("hello\0", 6));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, CompressStringTakesWhateverByteFollowsAndNulsWithin) {
    const std::string data("a\0b\0\xff\x80xyz", 9);
    GuardedBuffer dst(100);
    int length = 100;

    EXPECT_EQ(VCompressAndDeCompress::CompressString(data.data(), 6, dst.Data(), &length), 0);

    char text[100];
    uLongf textLength = sizeof(text);
    ASSERT_EQ(uncompress(reinterpret_cast<Bytef*>(text), &textLength, Bytes(dst.First(length)),
                         static_cast<uLong>(length)),
              Z_OK);
    EXPECT_EQ(std::string(text, textLength), data.substr(0, 7));
}

TEST_F(VCompressAndDeCompressTest, CompressStringMakesZlibStreamsOfTheDefaultLevelInExactlyTheBound) {
    std::vector<std::string> texts = {std::string(1, 'x'), "hello"};
    for (const int size : {100, 4095, 65535, 65536, kMebibyte}) {
        texts.push_back(Text(size));
        texts.push_back(Noise(size));
    }
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.size());
        int length = 0;
        ASSERT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), Length(text), nullptr, &length), 0);
        GuardedBuffer dst(length);

        ASSERT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), Length(text), dst.Data(), &length), 0);

        EXPECT_TRUE(dst.First(length) == Deflated(text + '\0', 15));
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, CompressStringWorksFor64MiB) {
    const std::string text = Text(64 * kMebibyte);
    int length = 0;
    ASSERT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), Length(text), nullptr, &length), 0);
    std::string packed(static_cast<std::size_t>(length), '\0');
    ASSERT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), Length(text), packed.data(), &length), 0);

    std::string unpacked(text.size() + 1, 'x');
    uLongf unpackedLength = unpacked.size();
    ASSERT_EQ(uncompress(Bytes(unpacked), &unpackedLength, Bytes(packed), static_cast<uLong>(length)), Z_OK);
    EXPECT_EQ(unpackedLength, text.size() + 1);
    EXPECT_TRUE(unpacked == text + '\0');
}

TEST_F(VCompressAndDeCompressTest, CompressStringLeavesNothingBehind) {
    const std::string text = Noise(10000);
    GuardedBuffer dst(20000);
    ExpectNoLeak([&] {
        int length = dst.Capacity();
        EXPECT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), Length(text), dst.Data(), &length), 0);
    });
    ExpectNoLeak([&] {
        int length = 100;
        EXPECT_EQ(VCompressAndDeCompress::CompressString(text.c_str(), Length(text), dst.Data(), &length),
                  -10000);
    });
}

// GzipCompress

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressRefusesMissingInputSilently) {
    GuardedBuffer dst(100);

    EXPECT_EQ(VCompressAndDeCompress::GzipCompress(nullptr, 5, dst.Data(), 100), -10000);
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 0, dst.Data(), 100), -10000);
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", -1, dst.Data(), 100), -10000);
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", INT_MIN, dst.Data(), 100), -10000);
    // The input is looked at first.
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 0, dst.Data(), 0), -10000);
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", -1, nullptr, 0), -10000);
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress(nullptr, 5, nullptr, -1), -10000);

    EXPECT_EQ(begun_, 0);
    EXPECT_TRUE(dst.IsUnused());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsForANullBufferWithRoom) {
    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, nullptr, 100), -10000);

    EXPECT_EQ(begun_, 1);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressLeavesAllInputWhenThereIsNoRoom) {
    int deflated = 0;
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        ++deflated;
        return calls::real::deflate(stream, flush);
    });
    GuardedBuffer dst(100);

    for (const int capacity : {0, -1, INT_MIN}) {
        SCOPED_TRACE(capacity);
        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), capacity), 5);
        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 1, nullptr, capacity), 1);
        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("never read", INT_MAX, dst.Data(), capacity), INT_MAX);
    }

    EXPECT_EQ(begun_, 9);
    EXPECT_EQ(deflated, 0);
    EXPECT_TRUE(dst.IsUnused());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressBeginsAGzipMemberOfTheDefaultLevel) {
    std::vector<InitArguments> seen;
    const auto counting = calls::deflateInit2_;
    const Replaced replaced(calls::deflateInit2_, [&](z_streamp stream, int level, int method, int windowBits,
                                                      int memLevel, int strategy, const char* version,
                                                      int size) {
        seen.push_back(
            {{level, method, windowBits, memLevel, strategy, size}, version, HasDefaultAllocator(*stream)});
        return counting(stream, level, method, windowBits, memLevel, strategy, version, size);
    });

    GzipMemberOf("hello");

    ASSERT_EQ(seen.size(), 1U);
    EXPECT_THAT(seen[0].numbers, ElementsAre(-1, 8, 31, 8, 0, 112));
    EXPECT_EQ(seen[0].version, "1.3.1");
    EXPECT_TRUE(seen[0].hasDefaultAllocator);
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressSetsItsBuffersAfterTheCompressionHasBegun) {
    const std::string src = "hello";
    GuardedBuffer dst(100);
    int begun = 0;
    const auto counting = calls::deflateInit2_;
    const Replaced replacedInit(calls::deflateInit2_, [&](z_streamp stream, auto... given) {
        ++begun;
        EXPECT_EQ(stream->next_in, nullptr);
        EXPECT_EQ(stream->avail_in, 0U);
        EXPECT_EQ(stream->next_out, nullptr);
        EXPECT_EQ(stream->avail_out, 0U);
        return counting(stream, given...);
    });
    std::vector<int> flushes;
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        if (flushes.empty()) {
            EXPECT_EQ(stream->next_in, Bytes(src));
            EXPECT_EQ(stream->avail_in, 5U);
            EXPECT_EQ(stream->next_out, reinterpret_cast<Bytef*>(dst.Data()));
            EXPECT_EQ(stream->avail_out, 100U);
        }
        flushes.push_back(flush);
        return calls::real::deflate(stream, flush);
    });

    EXPECT_GT(VCompressAndDeCompress::GzipCompress(src.data(), 5, dst.Data(), 100), 0);

    EXPECT_EQ(begun, 1);
    EXPECT_THAT(flushes, ElementsAre(Z_NO_FLUSH, Z_FINISH));
    EXPECT_THAT(TakeLog(), ElementsAre(GzipCompressLine()));
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenTheCompressionCannotBegin) {
    int deflated = 0;
    const Replaced deflateReplaced(calls::deflate, [&](z_streamp, int) {
        ++deflated;
        return Z_STREAM_ERROR;
    });
    for (const int code : {Z_MEM_ERROR, Z_STREAM_ERROR, Z_VERSION_ERROR, Z_STREAM_END}) {
        SCOPED_TRACE(code);
        const Replaced replaced(calls::deflateInit2_,
                                [&](z_streamp, int, int, int, int, int, const char*, int) { return code; });
        GuardedBuffer dst(100);
        ended_ = 0;

        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);
        // Before the room is looked at.
        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 0), -10000);

        EXPECT_TRUE(dst.IsUnused());
        EXPECT_THAT(TakeLog(), IsEmpty());
        ended_ = 0;
    }
    EXPECT_EQ(deflated, 0);
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenZlibGetsNoMemory) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap belongs to a sanitizer here";
    const Replaced replaced(calls::failingMallocSize, 65536U);  // zlib's window
    GuardedBuffer dst(100);

    ExpectNoLeak([&] {
        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);
        EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
    });
    ended_ = 0;
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFeedsWithoutFlushingThenFinishes) {
    GuardedBuffer dst(100);
    const char* const text = "hello";
    std::vector<int> flushes;
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        if (flushes.empty()) {
            EXPECT_EQ(stream->next_in, reinterpret_cast<const Bytef*>(text));
            EXPECT_EQ(stream->avail_in, 5U);
            EXPECT_EQ(stream->next_out, reinterpret_cast<Bytef*>(dst.Data()));
            EXPECT_EQ(stream->avail_out, 100U);
        }
        flushes.push_back(flush);
        return calls::real::deflate(stream, flush);
    });

    EXPECT_GT(VCompressAndDeCompress::GzipCompress(text, 5, dst.Data(), 100), 0);

    EXPECT_THAT(flushes, ElementsAre(Z_NO_FLUSH, Z_FINISH));
}

// A zlib that takes and gives a few bytes a call is within its rights.
TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressGoesOnUntilZlibHasTakenAndGivenAll) {
    const std::string data = Noise(1000);
    std::vector<int> flushes;
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        flushes.push_back(flush);
        const uInt heldBackInput = stream->avail_in - std::min(stream->avail_in, 300U);
        const uInt heldBackOutput = stream->avail_out - std::min(stream->avail_out, 500U);
        stream->avail_in -= heldBackInput;
        stream->avail_out -= heldBackOutput;
        const int status = calls::real::deflate(stream, flush);
        stream->avail_in += heldBackInput;
        stream->avail_out += heldBackOutput;
        return status;
    });
    GuardedBuffer dst(GzipCapacity(data));

    const int length =
        VCompressAndDeCompress::GzipCompress(data.data(), Length(data), dst.Data(), dst.Capacity());

    EXPECT_THAT(flushes,
                ElementsAre(Z_NO_FLUSH, Z_NO_FLUSH, Z_NO_FLUSH, Z_NO_FLUSH, Z_FINISH, Z_FINISH, Z_FINISH));
    ASSERT_GT(length, 1000);
    EXPECT_THAT(TakeLog(), ElementsAre(GzipCompressLine()));
    EXPECT_TRUE(ContentOf(dst.First(length), 1000) == data);
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenFeedingFails) {
    for (const int code :
         {Z_STREAM_END, Z_NEED_DICT, Z_ERRNO, Z_STREAM_ERROR, Z_DATA_ERROR, Z_MEM_ERROR, Z_BUF_ERROR}) {
        SCOPED_TRACE(code);
        const Replaced replaced(calls::deflate, [&](z_streamp, int flush) {
            EXPECT_EQ(flush, Z_NO_FLUSH);
            return code;
        });
        GuardedBuffer dst(100);
        begun_ = ended_ = 0;

        ExpectNoLeak([&] {
            EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);
            EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
        });
        EXPECT_EQ(begun_, 2);
        EXPECT_EQ(ended_, 2);
    }
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenFeedingFailsWithoutLeavingInput) {
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        (void)calls::real::deflate(stream, flush);
        return flush == Z_NO_FLUSH ? Z_BUF_ERROR : Z_STREAM_END;
    });
    GuardedBuffer dst(100);

    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);

    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenFinishingFails) {
    for (const int code : {Z_NEED_DICT, Z_ERRNO, Z_STREAM_ERROR, Z_DATA_ERROR, Z_MEM_ERROR, Z_BUF_ERROR}) {
        SCOPED_TRACE(code);
        const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
            return flush == Z_FINISH ? code : calls::real::deflate(stream, flush);
        });
        GuardedBuffer dst(100);
        begun_ = ended_ = 0;

        ExpectNoLeak([&] {
            EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);
            EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
        });
        EXPECT_EQ(begun_, 2);
        EXPECT_EQ(ended_, 2);
    }
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressTakesOnlyTheEndOfTheStreamForFinished) {
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        const int status = calls::real::deflate(stream, flush);
        return status == Z_STREAM_END ? Z_NEED_DICT : status;
    });
    GuardedBuffer dst(100);

    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);

    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenEndingFailsAndEndsOnlyOnce) {
    for (const int code : {Z_DATA_ERROR, Z_STREAM_ERROR, Z_STREAM_END}) {
        SCOPED_TRACE(code);
        const auto counting = calls::deflateEnd;
        const Replaced replaced(calls::deflateEnd, [&](z_streamp stream) {
            counting(stream);
            return code;
        });
        GuardedBuffer dst(100);
        begun_ = ended_ = 0;

        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), -10000);

        EXPECT_EQ(ended_, 1);
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressKeepsItsResultWhenEndingFailsOnAnotherWayOut) {
    const auto counting = calls::deflateEnd;
    const Replaced replaced(calls::deflateEnd, [&](z_streamp stream) {
        counting(stream);
        return Z_DATA_ERROR;  // as zlib answers for a stream that is given up
    });

    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, nullptr, 0), 5);
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressLogsOnlyAfterTheEnd) {
    const auto counting = calls::deflateEnd;
    const Replaced replaced(calls::deflateEnd, [&](z_streamp stream) {
        EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
        return counting(stream);
    });

    GzipMemberOf("hello");

    EXPECT_THAT(TakeLog(), ElementsAre(GzipCompressLine()));
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressLooksAtTheOutputTotalAsAnInt) {
    // What the stream says after each call of deflate, and what is left of the input then.
    struct Step {
        uLong total;
        uInt left;
    };
    // Not full by a byte, full but for the sign, full in the lower half only.
    const std::vector<Step> steps = {{99, 4}, {0x80000000UL, 3}, {0x100000063UL, 2}, {0x100000064UL, 1}};
    std::size_t step = 0;
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        EXPECT_EQ(flush, Z_NO_FLUSH);
        stream->total_out = steps.at(step).total;
        stream->avail_in = steps.at(step).left;
        ++step;
        return Z_OK;
    });
    GuardedBuffer dst(100);

    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), 1);

    EXPECT_EQ(step, 4U);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressReturnsTheOutputTotalAsAnInt) {
    const Replaced replaced(calls::deflate, [&](z_streamp stream, int flush) {
        stream->avail_in = 0;
        stream->total_out = 0x100000007UL;
        return flush == Z_FINISH ? Z_STREAM_END : Z_OK;
    });
    GuardedBuffer dst(100);

    EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 100), 7);

    EXPECT_THAT(TakeLog(), ElementsAre(GzipCompressLine()));
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressMakesAMemberThatGzipDecompressReads) {
    const std::string member = GzipMemberOf("hello");
    EXPECT_THAT(TakeLog(), ElementsAre(GzipCompressLine()));

    EXPECT_EQ(member.substr(0, 3), "\x1f\x8b\x08");
    EXPECT_TRUE(member == Deflated("hello", 31));
    EXPECT_EQ(ContentOf(member, 5), "hello");
    EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressResultsInWhatPlainZlibDoesForEveryCapacity) {
    const std::vector<std::string> inputs = {
        "a",       "hello",   std::string("\0\xff\x80", 3), std::string(5000, 'z'), Text(2000),
        Noise(60), Noise(300)};
    for (const std::string& data : inputs) {
        const int whole = PlainGzipCompress(data, GzipCapacity(data)).result;
        ASSERT_GT(whole, 18);
        for (int capacity = 0; capacity <= whole + 2; ++capacity) {
            SCOPED_TRACE(std::to_string(data.size()) + " bytes into " + std::to_string(capacity));
            const Outcome expected = PlainGzipCompress(data, capacity);
            GuardedBuffer dst(capacity);
            begun_ = ended_ = 0;

            const int result =
                VCompressAndDeCompress::GzipCompress(data.data(), Length(data), dst.Data(), capacity);

            EXPECT_EQ(result, expected.result);
            EXPECT_EQ(begun_, 1);
            EXPECT_EQ(ended_, 1);
            if (capacity >= whole) {
                EXPECT_EQ(result, whole);
                EXPECT_TRUE(dst.First(whole) == expected.member);
                EXPECT_THAT(TakeLog(), ElementsAre(GzipCompressLine()));
            } else {
                EXPECT_THAT(TakeLog(), IsEmpty());
            }
        }
    }
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressReturnsTheInputLeftOverWhenTheBufferFills) {
    const std::string data = Noise(kMebibyte);
    int lastLeft = Length(data) + 1;
    for (const int capacity : {1, 100, 40000, 100000, 500000, 1000000}) {
        SCOPED_TRACE(capacity);
        GuardedBuffer dst(capacity);

        const int left =
            VCompressAndDeCompress::GzipCompress(data.data(), Length(data), dst.Data(), capacity);

        EXPECT_EQ(left, PlainGzipCompress(data, capacity).result);
        EXPECT_GT(left, 0);
        EXPECT_LE(left, lastLeft);
        // Not a member of that length: even as much of it as there is does not decompress.
        std::string content(data.size(), '\0');
        const std::string written = dst.First(capacity);
        EXPECT_EQ(
            VCompressAndDeCompress::GzipDecompress(written.data(), capacity, content.data(), Length(content)),
            -5);
        lastLeft = left;
    }
    EXPECT_LT(lastLeft, 100000);
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressFailsWhenTheBufferFillsWhileFinishing) {
    // zlib keeps so little text to itself until the finish.
    for (const int capacity : {10, 17, 24}) {
        SCOPED_TRACE(capacity);
        GuardedBuffer dst(capacity);
        EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), capacity), -10000);
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressAlwaysFitsInTheBoundAnd18Bytes) {
    for (const int size :
         {1, 2, 3, 100, 16383, 16384, 16385, 65535, 65536, 131071, kMebibyte, kMebibyte + 1}) {
        SCOPED_TRACE(size);
        const std::string data = Noise(size);
        GuardedBuffer dst(GzipCapacity(data));

        const int length =
            VCompressAndDeCompress::GzipCompress(data.data(), size, dst.Data(), dst.Capacity());

        ASSERT_GT(length, 18);
        EXPECT_TRUE(dst.First(length) == Deflated(data, 31));
        EXPECT_TRUE(ContentOf(dst.First(length), size) == data);
    }
}

TEST_F(VCompressAndDeCompressDeflateTest, GzipCompressLeavesNothingBehind) {
    const std::string data = Noise(kMebibyte);
    GuardedBuffer dst(GzipCapacity(data));
    for (const int capacity : {-1, 0, 1, 1000, 500000, dst.Capacity()}) {
        SCOPED_TRACE(capacity);
        ExpectNoLeak([&] {
            EXPECT_GT(VCompressAndDeCompress::GzipCompress(data.data(), Length(data), dst.Data(), capacity),
                      0);
        });
    }
    ExpectNoLeak(
        [&] { EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, dst.Data(), 20), -10000); });
    ExpectNoLeak([&] { EXPECT_EQ(VCompressAndDeCompress::GzipCompress("hello", 5, nullptr, 20), -10000); });
}

// GzipDecompress

TEST_F(VCompressAndDeCompressTest, GzipDecompressNeedsRoomForAllOfTheContent) {
    const std::string data = Text(3000);
    const std::string member = Deflated(data, 31);
    for (const int capacity : {3000, 3001, 100000}) {
        SCOPED_TRACE(capacity);
        GuardedBuffer dst(capacity);
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), capacity),
                  3000);
        EXPECT_EQ(dst.First(3000), data);
        EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
    }
    for (const int capacity : {0, 1, 1500, 2999}) {
        SCOPED_TRACE(capacity);
        GuardedBuffer dst(capacity);
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), capacity),
                  -5);
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressReturnsZeroForAMemberWithoutContent) {
    const std::string member = Deflated("", 31);
    for (const int capacity : {0, 10}) {
        SCOPED_TRACE(capacity);
        GuardedBuffer dst(capacity);
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), capacity),
                  0);
        EXPECT_TRUE(dst.IsUnused());
        EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
    }
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressReportsInputThatEndsEarly) {
    for (const std::string& data : {std::string("hello"), Text(3000), Noise(300)}) {
        const std::string member = Deflated(data, 31);
        for (int length = 0; length < Length(member); ++length) {
            SCOPED_TRACE(std::to_string(length) + " of " + std::to_string(member.size()));
            const std::string truncated = member.substr(0, static_cast<std::size_t>(length));
            GuardedBuffer dst(10000);
            EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(truncated.data(), length, dst.Data(), 10000),
                      -5);
        }
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressTakesNothingButGzipMembers) {
    const std::string data = Text(3000);
    int length = static_cast<int>(compressBound(3001));
    std::string packed(static_cast<std::size_t>(length), '\0');
    ASSERT_EQ(VCompressAndDeCompress::CompressString(data.data(), 3000, packed.data(), &length), 0);
    packed.resize(static_cast<std::size_t>(length));

    for (const std::string& input : {packed, Deflated(data, -15), data, std::string("\x1f\x8bhello", 7)}) {
        GuardedBuffer dst(10000);
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(input.data(), Length(input), dst.Data(), 10000), -3);
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressAnswersLikePlainZlibForEveryDamagedByte) {
    int refused = 0;
    for (const std::string& data : {std::string("hello"), Text(500), Noise(100)}) {
        const std::string member = Deflated(data, 31);
        for (std::size_t at = 0; at < member.size(); ++at) {
            for (const int bits : {0x01, 0x04, 0x10, 0x80, 0xff}) {
                SCOPED_TRACE("byte " + std::to_string(at) + " xor " + std::to_string(bits));
                std::string damaged = member;
                damaged[at] = static_cast<char>(damaged[at] ^ bits);
                std::string expected(1000, '\0');
                const int expectedResult = PlainGzipDecompress(damaged, expected);
                GuardedBuffer dst(1000);

                const int result =
                    VCompressAndDeCompress::GzipDecompress(damaged.data(), Length(damaged), dst.Data(), 1000);

                EXPECT_EQ(result, expectedResult);
                if (result >= 0) {
                    // Damage in the time or the system of origin is not the content's.
                    EXPECT_EQ(dst.First(result), data);
                    EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
                } else {
                    ++refused;
                    EXPECT_THAT(TakeLog(), IsEmpty());
                }
            }
        }
    }
    EXPECT_GT(refused, 500);
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressReadsTheFirstMemberOnly) {
    for (const std::string& rest : {Deflated("world", 31), std::string("rubbish"), std::string(100, '\0')}) {
        const std::string input = Deflated("hello", 31) + rest;
        GuardedBuffer dst(100);
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(input.data(), Length(input), dst.Data(), 100), 5);
        EXPECT_EQ(dst.First(5), "hello");
        EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
    }
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressLeavesNullBuffersToZlib) {
    const std::string member = Deflated("hello", 31);
    GuardedBuffer dst(100);

    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(nullptr, 10, dst.Data(), 100), -2);
    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), nullptr, 100), -2);
    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), nullptr, 0), -2);
    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(nullptr, 10, nullptr, 100), -2);
    // No input at all is merely too little of it.
    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(nullptr, 0, dst.Data(), 100), -5);

    EXPECT_TRUE(dst.IsUnused());
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressBeginsWithTheGzipWrapperAlone) {
    std::vector<InitArguments> seen;
    const Replaced replaced(calls::inflateInit2_,
                            [&](z_streamp stream, int windowBits, const char* version, int size) {
                                seen.push_back({{windowBits, size}, version, HasDefaultAllocator(*stream)});
                                return calls::real::inflateInit2_(stream, windowBits, version, size);
                            });
    const std::string member = Deflated("hello", 31);

    EXPECT_EQ(ContentOf(member, 5), "hello");

    ASSERT_EQ(seen.size(), 1U);
    EXPECT_THAT(seen[0].numbers, ElementsAre(31, 112));
    EXPECT_EQ(seen[0].version, "1.3.1");
    EXPECT_TRUE(seen[0].hasDefaultAllocator);
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressSetsItsBuffersBeforeItBegins) {
    const std::string member = Deflated("hello", 31);
    GuardedBuffer dst(100);
    int begun = 0;
    const Replaced replaced(calls::inflateInit2_, [&](z_streamp stream, auto... given) {
        ++begun;
        EXPECT_EQ(stream->next_in, Bytes(member));
        EXPECT_EQ(stream->avail_in, static_cast<uInt>(member.size()));
        EXPECT_EQ(stream->next_out, reinterpret_cast<Bytef*>(dst.Data()));
        EXPECT_EQ(stream->avail_out, 100U);
        return calls::real::inflateInit2_(stream, given...);
    });

    EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), 100), 5);

    EXPECT_EQ(begun, 1);
    EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressPassesOnWhyItCannotBegin) {
    int ended = 0;
    int inflated = 0;
    const Replaced endReplaced(calls::inflateEnd, [&](z_streamp stream) {
        ++ended;
        return calls::real::inflateEnd(stream);
    });
    const Replaced inflateReplaced(calls::inflate, [&](z_streamp, int) {
        ++inflated;
        return Z_STREAM_END;
    });
    // Z_STREAM_END, too: from here it is no end of a stream.
    for (const int code : {Z_VERSION_ERROR, Z_MEM_ERROR, Z_STREAM_ERROR, Z_NEED_DICT, Z_STREAM_END, 2, -99}) {
        SCOPED_TRACE(code);
        const Replaced replaced(calls::inflateInit2_, [&](z_streamp, int, const char*, int) { return code; });
        GuardedBuffer dst(100);
        ended = 0;

        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress("hello", 5, dst.Data(), 100), code);

        EXPECT_EQ(ended, 1);
        EXPECT_THAT(TakeLog(), IsEmpty());
    }
    EXPECT_EQ(inflated, 0);
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressInflatesOnceAndPassesOnTheCode) {
    for (const int code : {Z_OK, Z_NEED_DICT, Z_ERRNO, Z_STREAM_ERROR, Z_DATA_ERROR, Z_MEM_ERROR, Z_BUF_ERROR,
                           Z_VERSION_ERROR, -99}) {
        SCOPED_TRACE(code);
        GuardedBuffer dst(100);
        const char* const src = "hello";
        int ended = 0;
        std::vector<int> flushes;
        const Replaced endReplaced(calls::inflateEnd, [&](z_streamp stream) {
            ++ended;
            return calls::real::inflateEnd(stream);
        });
        const Replaced replaced(calls::inflate, [&](z_streamp stream, int flush) {
            EXPECT_EQ(stream->next_in, reinterpret_cast<const Bytef*>(src));
            EXPECT_EQ(stream->avail_in, 5U);
            EXPECT_EQ(stream->next_out, reinterpret_cast<Bytef*>(dst.Data()));
            EXPECT_EQ(stream->avail_out, 100U);
            flushes.push_back(flush);
            return code;
        });

        ExpectNoLeak([&] {
            ended = 0;
            flushes.clear();
            flushes.reserve(10);
            EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(src, 5, dst.Data(), 100), code);
            EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
        });

        EXPECT_THAT(flushes, ElementsAre(Z_FINISH));
        EXPECT_EQ(ended, 1);
    }
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressHandsNegativeLengthsOnAsHugeOnes) {
    struct Row {
        int length;
        uInt seen;
    };
    for (const Row& row :
         {Row{-1, kWholeUInt}, Row{INT_MIN, 2147483648U}, Row{INT_MAX, 2147483647U}, Row{0, 0U}}) {
        SCOPED_TRACE(row.length);
        std::vector<uInt> seen;
        const Replaced replaced(calls::inflate, [&](z_streamp stream, int) {
            seen = {stream->avail_in, stream->avail_out};
            return Z_DATA_ERROR;
        });
        GuardedBuffer dst(100);

        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress("never read", row.length, dst.Data(), 100), -3);
        EXPECT_THAT(seen, ElementsAre(row.seen, 100U));
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress("never read", 10, dst.Data(), row.length), -3);
        EXPECT_THAT(seen, ElementsAre(10U, row.seen));
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressReturnsTheOutputTotalAsAnInt) {
    for (const uLong total : {7UL, 0x100000007UL}) {
        const Replaced replaced(calls::inflate, [&](z_streamp stream, int) {
            stream->total_out = total;
            return Z_STREAM_END;
        });
        GuardedBuffer dst(100);

        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress("hello", 5, dst.Data(), 100), 7);
        EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
    }
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressEndsOnceBeforeItLogsAndIgnoresHow) {
    int ended = 0;
    const Replaced replaced(calls::inflateEnd, [&](z_streamp stream) {
        ++ended;
        EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
        (void)calls::real::inflateEnd(stream);
        return Z_STREAM_ERROR;
    });
    const std::string member = Deflated("hello", 31);
    ended = 0;

    EXPECT_EQ(ContentOf(member, 5), "hello");

    EXPECT_EQ(ended, 1);
    EXPECT_THAT(TakeLog(), ElementsAre(GzipDecompressLine()));
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressReportsThatZlibGetsNoMemory) {
    if (!heap::IsCounted()) GTEST_SKIP() << "the heap belongs to a sanitizer here";
    const std::string member = Deflated(Text(3000), 31);
    GuardedBuffer dst(100);
    const Replaced replaced(calls::failingMallocSize, 32768U);  // the window of what did not fit at once

    ExpectNoLeak([&] {
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), 100), -4);
        EXPECT_THAT(LogRecorder::Lines(), IsEmpty());
    });
}

TEST_F(VCompressAndDeCompressTest, GzipDecompressLeavesNothingBehind) {
    const std::string member = Deflated(Text(100000), 31);
    GuardedBuffer dst(100000);
    ExpectNoLeak([&] {
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), 100000),
                  100000);
    });
    ExpectNoLeak([&] {
        EXPECT_EQ(VCompressAndDeCompress::GzipDecompress(member.data(), Length(member), dst.Data(), 99999),
                  -5);
    });
    ExpectNoLeak([&] {
        EXPECT_EQ(
            VCompressAndDeCompress::GzipDecompress(member.data(), Length(member) - 1, dst.Data(), 100000),
            -5);
    });
    ExpectNoLeak(
        [&] { EXPECT_EQ(VCompressAndDeCompress::GzipDecompress("no member", 9, dst.Data(), 100000), -3); });
}

// With the other readers and writers of the format

class VCompressAndDeCompressFormatTest : public VCompressAndDeCompressTest {
protected:
    // The content of the member as the program gzip reads it.
    std::string ReadWithGzip(const std::string& member) {
        const ProcessResult result = RunProcess({"gzip", "-dc", scratch_.Write("member.gz", member)});
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result.out;
    }
    // The member that the program gzip writes.
    std::string WriteWithGzip(const std::string& data, const std::string& level = "-6") {
        const ProcessResult result = RunProcess({"gzip", level, "-c", scratch_.Write("some data", data)});
        EXPECT_EQ(result.exitStatus, 0) << result.err;
        return result.out;
    }
    std::string ReadWithZlib(const std::string& member, int size) {
        const gzFile file = gzopen(scratch_.Write("member.gz", member).c_str(), "rb");
        std::string data(static_cast<std::size_t>(size) + 1, '\0');
        const int length = gzread(file, data.data(), static_cast<unsigned>(data.size()));
        EXPECT_EQ(length, size);
        EXPECT_EQ(gzclose(file), Z_OK);
        data.resize(static_cast<std::size_t>(std::max(length, 0)));
        return data;
    }
    std::string WriteWithZlib(const std::string& data) {
        const gzFile file = gzopen(scratch_.Path("member.gz").c_str(), "wb");
        EXPECT_EQ(gzwrite(file, data.data(), static_cast<unsigned>(data.size())), Length(data));
        EXPECT_EQ(gzclose(file), Z_OK);
        return scratch_.Read("member.gz");
    }

    ScratchDirectory scratch_;
};

TEST_F(VCompressAndDeCompressFormatTest, OtherReadersReadWhatGzipCompressWrites) {
    for (const int size : {1, 2, 100, 32768, 65537, kMebibyte}) {
        SCOPED_TRACE(size);
        for (const std::string& data : {Text(size), Noise(size)}) {
            const std::string member = GzipMemberOf(data);
            EXPECT_TRUE(ReadWithGzip(member) == data);
            EXPECT_TRUE(ReadWithZlib(member, size) == data);
        }
    }
}

TEST_F(VCompressAndDeCompressFormatTest, GzipDecompressReadsWhatOtherWritersWrite) {
    for (const int size : {1, 2, 100, 32768, 65537, kMebibyte}) {
        SCOPED_TRACE(size);
        for (const std::string& data : {Text(size), Noise(size)}) {
            // The program's member holds the file's name and time besides.
            EXPECT_TRUE(ContentOf(WriteWithGzip(data), size) == data);
            EXPECT_TRUE(ContentOf(WriteWithZlib(data), size) == data);
        }
    }
    const std::string data = Text(100000);
    EXPECT_TRUE(ContentOf(WriteWithGzip(data, "-1"), 100000) == data);
    EXPECT_TRUE(ContentOf(WriteWithGzip(data, "-9"), 100000) == data);
    EXPECT_TRUE(ContentOf(Deflated(data, 31, 0), 100000) == data);
    EXPECT_EQ(ContentOf(WriteWithGzip(""), 0), "");
}

TEST_F(VCompressAndDeCompressFormatTest, CompressibleMembersOf64MiBGoBothWays) {
    constexpr int size = 64 * kMebibyte;
    const std::string data = Text(size);

    const std::string member = GzipMemberOf(data);
    EXPECT_LT(member.size(), 1000000U);
    EXPECT_TRUE(ContentOf(member, size) == data);
    EXPECT_TRUE(ReadWithGzip(member) == data);
    EXPECT_TRUE(ContentOf(WriteWithGzip(data), size) == data);
}

TEST_F(VCompressAndDeCompressFormatTest, IncompressibleMembersOf64MiBGoBothWays) {
    if (VFS_TEST_EMULATED) GTEST_SKIP() << "it would be the emulator's minutes, for zlib's own code";
    constexpr int size = 64 * kMebibyte;
    const std::string data = Noise(size);

    const std::string member = GzipMemberOf(data);
    EXPECT_GT(member.size(), data.size());
    EXPECT_TRUE(ContentOf(member, size) == data);
    EXPECT_TRUE(ReadWithZlib(member, size) == data);
}

TEST_F(VCompressAndDeCompressTest, EightThreadsMayUseItAtOnce) {
    constexpr int threads = 8;
    constexpr int rounds = 20;
    std::vector<int> intact(threads, 0);
    std::vector<std::thread> workers;
    for (int worker = 0; worker < threads; ++worker) {
        workers.emplace_back([worker, &intact] {
            const std::string data = Noise(2000, static_cast<unsigned>(worker)) + Text(20000 + worker);
            for (int round = 0; round < rounds; ++round) {
                const std::string member = GzipMemberOf(data);
                const bool isGzipIntact = ContentOf(member, Length(data)) == data;

                int length = static_cast<int>(compressBound(data.size() + 1));
                std::string packed(static_cast<std::size_t>(length), '\0');
                const int status = VCompressAndDeCompress::CompressString(data.c_str(), Length(data),
                                                                          packed.data(), &length);
                std::string text(data.size() + 1, 'x');
                uLongf textLength = text.size();
                const bool isZlibIntact =
                    status == 0 &&
                    uncompress(Bytes(text), &textLength, Bytes(packed), static_cast<uLong>(length)) == Z_OK &&
                    text == data + '\0';
                if (isGzipIntact && isZlibIntact) ++intact[static_cast<std::size_t>(worker)];
            }
        });
    }
    for (std::thread& worker : workers) worker.join();

    EXPECT_EQ(intact, std::vector<int>(threads, rounds));
    const std::vector<LogLine> lines = TakeLog();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), GzipCompressLine()), threads * rounds);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), GzipDecompressLine()), threads * rounds);
    EXPECT_EQ(lines.size(), 2U * threads * rounds);
}

}  // namespace
