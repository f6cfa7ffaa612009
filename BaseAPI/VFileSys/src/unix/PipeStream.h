// The output of a shell command, as a stream.
#ifndef VFILESYS_UNIX_PIPESTREAM_H
#define VFILESYS_UNIX_PIPESTREAM_H

#include <cstdio>

// Owns the stream of popen; waits for the command at the latest when it is destroyed.
class PipeStream {
public:
    explicit PipeStream(const char* command) : stream_(popen(command, "r")) {}
    ~PipeStream() {
        if (stream_ != nullptr) (void)pclose(stream_);
    }
    PipeStream(const PipeStream&) = delete;
    PipeStream& operator=(const PipeStream&) = delete;

    explicit operator bool() const { return stream_ != nullptr; }
    FILE* Get() const { return stream_; }

    // Waits for the command's end and returns its wait status as pclose gives it.
    int Close() {
        FILE* const stream = stream_;
        stream_ = nullptr;
        return pclose(stream);
    }

private:
    FILE* stream_;
};

#endif
