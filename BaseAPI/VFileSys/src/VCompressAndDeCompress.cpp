// Compression of memory buffers with zlib.
#include "VCompressAndDeCompress.h"

#include <zlib.h>

#include "Constants.h"
#include "Log.h"

namespace {

// The interface of zlib that the calls below are made for; any zlib 1 accepts the version.
const char kZlibVersion[] = "1.3.1";
constexpr int kZlibStreamSize = 112;
static_assert(sizeof(z_stream) == kZlibStreamSize, "the stream of the 64-bit systems");

constexpr int kGzipWindowBits = 15 + 16;  // the largest window, in the gzip wrapper and no other
constexpr int kMemoryLevel = 8;

// zlib declares its input without const; it never writes to it.
Bytef* Bytes(const char* data) {
    return reinterpret_cast<Bytef*>(const_cast<char*>(data));
}

void SetBuffers(z_stream& stream, const char* src, int srcLen, char* dst, int dstLen) {
    stream.next_in = Bytes(src);
    stream.avail_in = static_cast<uInt>(srcLen);
    stream.next_out = Bytes(dst);
    stream.avail_out = static_cast<uInt>(dstLen);
}

// Releases the state of a compression on every path out of a function.
class DeflateGuard {
public:
    explicit DeflateGuard(z_stream& stream) : stream_(&stream) {}
    ~DeflateGuard() {
        if (stream_ != nullptr) (void)deflateEnd(stream_);  // the result is known already
    }
    DeflateGuard(const DeflateGuard&) = delete;
    DeflateGuard& operator=(const DeflateGuard&) = delete;

    int End() {
        z_stream* const stream = stream_;
        stream_ = nullptr;
        return deflateEnd(stream);
    }

private:
    z_stream* stream_;
};

// Writes out what the stream still holds. True when the member is whole.
bool FinishMember(z_stream& stream) {
    int status = Z_OK;
    while (status == Z_OK) status = deflate(&stream, Z_FINISH);
    return status == Z_STREAM_END;
}

}  // namespace

int VCompressAndDeCompress::CompressString(const char* src, int srcLen, char* dst, int* dstLen) {
    if (dstLen == nullptr || srcLen <= 0 || src == nullptr) return kFailure;

    // Deliberate: the byte after the text, its NUL, is compressed with it.
    const uLong inputLength = static_cast<uLong>(srcLen) + 1;
    const int bound = static_cast<int>(compressBound(inputLength));
    if (dst == nullptr) {
        *dstLen = bound;
        return kSuccess;
    }
    // A bound that has wrapped must not let a negative capacity pass.
    if (bound > *dstLen || *dstLen < 0) {
        VFS_LOG("CompressString", kLogError, "need more memory, given len=%d, need len=%d", *dstLen, bound);
        return kFailure;
    }

    uLongf length = static_cast<uLongf>(*dstLen);
    const int status = compress(Bytes(dst), &length, Bytes(src), inputLength);
    *dstLen = static_cast<int>(length);
    if (status != Z_OK) {
        VFS_LOG("CompressString", kLogError, "compress str error, srcLen=%d,dstLen=%d",
                static_cast<int>(inputLength), *dstLen);
        return kFailure;
    }
    return kSuccess;
}

int VCompressAndDeCompress::GzipCompress(const char* src, int srcLen, char* dst, int dstLen) {
    if (src == nullptr || srcLen <= 0) return kFailure;

    z_stream stream = {};
    if (deflateInit2_(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                      Z_DEFAULT_STRATEGY, kZlibVersion, kZlibStreamSize) != Z_OK) {
        return kFailure;
    }
    DeflateGuard guard(stream);
    SetBuffers(stream, src, srcLen, dst, dstLen);
    if (dstLen <= 0) return srcLen;

    do {
        if (deflate(&stream, Z_NO_FLUSH) != Z_OK) return kFailure;
        const bool isFull = dstLen <= static_cast<int>(stream.total_out);
        if (stream.avail_in != 0 && isFull) return static_cast<int>(stream.avail_in);
    } while (stream.avail_in != 0);

    if (!FinishMember(stream) || guard.End() != Z_OK) return kFailure;
    VFS_LOG("GzipCompress", kLogInfo, "gzip compress success.");
    return static_cast<int>(stream.total_out);
}

int VCompressAndDeCompress::GzipDecompress(const char* src, int srcLen, char* dst, int dstLen) {
    z_stream stream = {};
    SetBuffers(stream, src, srcLen, dst, dstLen);
    const int started = inflateInit2_(&stream, kGzipWindowBits, kZlibVersion, kZlibStreamSize);
    const int status = started == Z_OK ? inflate(&stream, Z_FINISH) : started;

    (void)inflateEnd(&stream);  // after a failed start, too: there is nothing to release then
    // Only inflate can report the end of the stream: any result of a failed start goes to the caller.
    if (started != Z_OK || status != Z_STREAM_END) return status;
    VFS_LOG("GzipDecompress", kLogInfo, "gzip decompress success.");
    return static_cast<int>(stream.total_out);
}
