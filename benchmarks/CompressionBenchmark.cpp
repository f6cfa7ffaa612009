// Compression in memory beside the same calls of zlib, and archives beside the same tar command.
#include "VCompressAndDeCompress.h"

#include <sys/wait.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Rows.h"
#include "Scratch.h"

namespace {

namespace fs = std::filesystem;

std::string Named(std::size_t size) {
    if (size < 1024) return std::to_string(size) + " B";
    return size < (std::size_t{1} << 20) ? std::to_string(size >> 10) + " KiB"
                                         : std::to_string(size >> 20) + " MiB";
}

// A text of words, as configuration and logs are.
std::string SomeText(std::size_t size) {
    const std::string bytes = SomeBytes(size);
    const std::vector<std::string> words = {"service ", "started ", "on ",    "node",
                                            "=",        "value ",   "error ", "\n"};
    std::string text;
    for (std::size_t i = 0; text.size() < size; ++i) {
        text += words[static_cast<unsigned char>(bytes[i]) % words.size()];
        if (i % 5 == 0) text += std::to_string(i);
    }
    text.resize(size);
    return text;
}

Bytef* Bytes(char* text) {
    return reinterpret_cast<Bytef*>(text);
}

// A gzip member made or read with one call of zlib's stream functions each.
int PlainGzip(std::string& text, std::string& packed) {
    z_stream stream = {};
    stream.next_in = Bytes(text.data());
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = Bytes(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        std::abort();
    if (deflate(&stream, Z_NO_FLUSH) != Z_OK || deflate(&stream, Z_FINISH) != Z_STREAM_END) std::abort();
    (void)deflateEnd(&stream);
    return static_cast<int>(stream.total_out);
}

int PlainGunzip(std::string& packed, int length, std::string& text) {
    z_stream stream = {};
    stream.next_in = Bytes(packed.data());
    stream.avail_in = static_cast<uInt>(length);
    stream.next_out = Bytes(text.data());
    stream.avail_out = static_cast<uInt>(text.size());
    if (inflateInit2(&stream, 31) != Z_OK || inflate(&stream, Z_FINISH) != Z_STREAM_END) std::abort();
    (void)inflateEnd(&stream);
    return static_cast<int>(stream.total_out);
}

void AddMemoryRows(std::size_t size) {
    struct Data {
        std::string text;
        std::string packed;
        std::string gzip;
        int gzipLength = 0;
    };
    const auto data = std::make_shared<Data>();
    data->text = SomeText(size);
    data->packed.resize(compressBound(size + 1) + 18);
    data->gzip = data->packed;
    data->gzipLength = PlainGzip(data->text, data->gzip);

    const int length = static_cast<int>(size);
    AddRow("Compression", "CompressString, " + Named(size))
        .Ours([=] {
            int packedLength = static_cast<int>(data->packed.size());
            const int status = VCompressAndDeCompress::CompressString(data->text.c_str(), length,
                                                                      data->packed.data(), &packedLength);
            if (status != 0) std::abort();
        })
        .Beside("compress", 1.05, [=] {
            uLongf packedLength = data->packed.size();
            if (compress(Bytes(data->packed.data()), &packedLength, Bytes(data->text.data()), size + 1) !=
                Z_OK) {
                std::abort();
            }
        });
    AddRow("Compression", "GzipCompress, " + Named(size))
        .Growing("GzipCompress, bytes", static_cast<double>(size))
        .Ours([=] {
            const int packed = VCompressAndDeCompress::GzipCompress(
                data->text.c_str(), length, data->packed.data(), static_cast<int>(data->packed.size()));
            if (packed != data->gzipLength) std::abort();
        })
        .Beside("deflate", 1.05, [=] {
            if (PlainGzip(data->text, data->packed) != data->gzipLength) std::abort();
        });
    AddRow("Compression", "GzipDecompress, " + Named(size))
        .Ours([=] {
            const int unpacked = VCompressAndDeCompress::GzipDecompress(data->gzip.data(), data->gzipLength,
                                                                        data->packed.data(), length);
            if (unpacked != length) std::abort();
        })
        .Beside("inflate", 1.05, [=] {
            if (PlainGunzip(data->gzip, data->gzipLength, data->packed) != length) std::abort();
        });
}

template <typename Work>
auto Timed(Work work) {
    return [work] {
        const double before = ProcessorTime();
        work();
        return ProcessorTime() - before;
    };
}

void AddArchiveRow(const char* name, std::size_t files, std::size_t size) {
    const auto directory = [=] {
        const std::string path = MemoryDirectory() + "/archive-" + std::to_string(files);
        if (!fs::exists(path)) {
            const std::string text = SomeText(size);
            for (std::size_t i = 0; i < files; ++i) WriteFile(path + "/file" + std::to_string(i), text);
        }
        return path;
    };
    AddRow("Archives", std::string("CompressFile, ") + name)
        .OursTimed(Timed([=] {
            if (VCompressAndDeCompress::CompressFile(directory().c_str()) != 0) std::abort();
        }))
        .BesideTimed("the same tar command from a shell", 1.05, Timed([=] {
                         const std::string path = directory();
                         const std::string command =
                             "tar -zcvf " + path + "-shell.tar.gz " + path + " >/dev/null 2>&1";
                         if (std::system(command.c_str()) != 0) std::abort();
                     }));
}

[[maybe_unused]] const bool kRows = [] {
    for (const std::size_t size :
         {std::size_t{100}, std::size_t{4096}, std::size_t{65536}, std::size_t{8} << 20}) {
        AddMemoryRows(size);
    }
    AddArchiveRow("1 file of 1 KiB", 1, 1024);
    AddArchiveRow("10 files of 1 KiB", 10, 1024);
    AddArchiveRow("1,000 files of 1 KiB", 1000, 1024);
    AddArchiveRow("100 files of 256 KiB", 100, 256 * 1024);
    return true;
}();

}  // namespace
