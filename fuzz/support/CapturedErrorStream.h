// Keeps what is written to `stderr`, the stream, for as long as it lives: quiet, and there to be judged. What
// the engine and the sanitizers print is not concerned.
#ifndef FUZZ_SUPPORT_CAPTUREDERRORSTREAM_H
#define FUZZ_SUPPORT_CAPTUREDERRORSTREAM_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

class CapturedErrorStream {
public:
    CapturedErrorStream() : stream_(open_memstream(&text_, &size_)), old_(std::exchange(stderr, stream_)) {}
    ~CapturedErrorStream() {
        stderr = old_;
        (void)std::fclose(stream_);
        std::free(text_);
    }
    CapturedErrorStream(const CapturedErrorStream&) = delete;
    CapturedErrorStream& operator=(const CapturedErrorStream&) = delete;

    std::string Text() const {
        (void)std::fflush(stream_);
        return std::string(text_, size_);
    }

private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    FILE* stream_;
    FILE* old_;
};

#endif
