#include "Plain.h"

#include <dirent.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "safestr.h"

void plain::Resolve(const char* text, char* buffer) {
    if (strcpy_s(buffer, 4096, text) != 0) return;
    std::size_t length = std::strlen(buffer);
    while (length > 1 && buffer[length - 1] == '/') buffer[--length] = '\0';

    std::size_t begin = 0;
    for (std::size_t i = 0; i < length;) {
        if (buffer[i] != '/') {
            ++i;
            continue;
        }
        std::size_t last = i;
        while (buffer[last + 1] == '/') ++last;
        std::size_t dest = i;
        if (i - begin == 1 && buffer[begin] == '.') dest = begin - 1;
        if (i - begin == 2 && buffer[begin] == '.' && buffer[begin + 1] == '.') {
            dest = begin - 1;
            if (dest > 0) {
                do --dest;
                while (buffer[dest] != '/');
            }
        }
        if (dest != last) {
            (void)memmove_s(buffer + dest, length - last + 1, buffer + last, length - last + 1);
            length -= last - dest;
        }
        begin = i = dest + 1;
    }
}

void plain::CleanCopy(const char* text, char* buffer) {
    std::size_t length = 0;
    for (const char* at = text; *at != '\0';) {
        while (*at == '/') ++at;
        const char* end = at;
        while (*end != '\0' && *end != '/') ++end;
        const auto size = static_cast<std::size_t>(end - at);
        if (size == 2 && at[0] == '.' && at[1] == '.') {
            while (length > 0 && buffer[--length] != '/') {
            }
        } else if (size > 0 && !(size == 1 && at[0] == '.')) {
            buffer[length++] = '/';
            for (std::size_t i = 0; i < size; ++i) buffer[length++] = at[i];
        }
        at = end;
    }
    if (length == 0) buffer[length++] = '/';
    buffer[length] = '\0';
}

int plain::CopyFile(const char* source, const char* destination) {
    FILE* const in = std::fopen(source, "rb");
    if (in == nullptr) return -1;
    FILE* const out = std::fopen(destination, "wb");
    if (out == nullptr) {
        (void)std::fclose(in);
        return -1;
    }
    std::array<char, 2048> block;
    int status = 0;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), in)) {
        if (std::fwrite(block.data(), 1, count, out) != count) status = -1;
    }
    (void)std::fflush(out);
    (void)std::fclose(in);
    (void)std::fclose(out);
    return status;
}

void plain::ScanFiles(const std::string& path, std::vector<std::string>& files) {
    DIR* const dir = opendir(path.c_str());
    if (dir == nullptr) return;
    while (const dirent* const entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string entryPath = path + "/" + name;
        struct stat status;
        if (stat(entryPath.c_str(), &status) != 0) continue;
        if (S_ISDIR(status.st_mode)) ScanFiles(entryPath, files);
        if (S_ISREG(status.st_mode)) files.push_back(entryPath);
    }
    (void)closedir(dir);
}

int plain::MakeDirectories(const char* path, unsigned mode) {
    std::string text = path;
    for (std::size_t slash = text.find('/', 1); slash != std::string::npos;
         slash = text.find('/', slash + 1)) {
        const std::string parent = text.substr(0, slash);
        struct stat status;
        if (stat(parent.c_str(), &status) != 0 && mkdir(parent.c_str(), mode) != 0) return -1;
    }
    struct stat status;
    return stat(text.c_str(), &status) == 0 ? 0 : mkdir(text.c_str(), mode);
}
