// A tour of the library: each class does one real thing in a directory of the caller's, and what it logs is
// shown on standard error beside it.
//
//     c++ -std=c++17 -o Tour Tour.cpp $(pkg-config --cflags --libs VFileSys) -lVLogger -lz -pthread
//     Tour DIRECTORY [--with-helper]
//
// With --with-helper the product's helper tool is run, too; without it, those two stops are left out.
#include <zlib.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "VCompressAndDeCompress.h"
#include "VDir.h"
#include "VFile.h"
#include "VFixFirewall.h"
#include "VLogger.h"
#include "VMonitorFiles.h"
#include "VPath.h"

namespace {

void Heading(const char* name, const char* what) {
    std::printf("\n%s: %s\n", name, what);
    std::fflush(stdout);
}

__attribute__((format(printf, 1, 2))) void Say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::printf("    ");
    std::vprintf(format, arguments);
    std::printf("\n");
    std::fflush(stdout);
    va_end(arguments);
}

VPath ShowPath(const char* directory) {
    Heading("VPath", "canonical paths, as text");
    const VPath home = VPath(directory) + "data/../config//./app.conf";
    Say("%s + data/../config//./app.conf", directory);
    Say("= %s", home.RealPath().text);
    Say("parent %s, name %s", home.DirName().text, home.BaseName().text);
    return home;
}

void ShowDirectory(const VPath& file) {
    Heading("VDir", "directories with their parents, handed to a user");
    const PathText directory = file.DirName();
    Say("VMkDir(%s, 0750) = %d", directory.text, VDir::VMkDir(directory.text, 0750));
    Say("to a user that is not there: %d", VDir::VChownDirAndFirstDepthFiles(directory.text, "no-such-user"));
}

void ShowFile(const VPath& file) {
    Heading("VFile", "whole files");
    const std::string path = file.RealPath().text;
    const std::string text = "port = 8080\n";
    Say("WriteBinFile: %ld bytes",
        VFile::WriteBinFile(path.c_str(), text.data(), static_cast<long>(text.size())));
    Say("VCopyFile to app.conf.old: %d", VFile::VCopyFile(path.c_str(), (path + ".old").c_str()));
    Say("VCopyFile of a file that is not there: %d", VFile::VCopyFile((path + ".no").c_str(), path.c_str()));
    std::vector<std::string> files;
    VFile::ScanDirectoriesFiles(file.DirName().text, files);
    Say("ScanDirectoriesFiles: %zu files", files.size());
}

void ShowCompression(const VPath& file) {
    Heading("VCompressAndDeCompress", "buffers and archives");
    const std::string text(10000, 'x');
    std::vector<char> member(compressBound(text.size()) + 18);
    const int length = VCompressAndDeCompress::GzipCompress(text.data(), static_cast<int>(text.size()),
                                                            member.data(), static_cast<int>(member.size()));
    Say("GzipCompress: %zu bytes become %d", text.size(), length);
    const std::string path = file.RealPath().text;
    Say("CompressFile: %d", VCompressAndDeCompress::CompressFile(path.c_str()));
    Say("a command that the guard refuses: %d", VCompressAndDeCompress::CompressFile((path + ";").c_str()));
}

void ShowMonitor(const VPath& file) {
    Heading("VMonitorFiles", "waiting for a change");
    const std::string path = file.RealPath().text;
    const int fd = VMonitorFiles::InotifyInit(nullptr);
    bool isSeen = false;
    std::atomic<bool> isOver{false};
    std::thread waiter([&] {
        isSeen = VMonitorFiles::InotifyFileChange(fd, path.c_str(), 1);
        isOver = true;
    });
    // Written to until the waiter has come back, since it may not be waiting yet.
    while (!isOver && VFile::AppendWriteFile(path.c_str(), "#", 1) == 0) std::this_thread::yield();
    waiter.join();
    Say(isSeen ? "somebody wrote to %s" : "%s can't be watched", file.BaseName().text);
    VMonitorFiles::Inotifyclose(fd);
    Say("(\"close failed\" is what a successful close logs; kept for those who know it)");
}

void ShowHelperTool() {
    Heading("VFile::FileProtect", "the product's helper tool");
    VFile::FileProtect(true);
    Heading("VFixFirewall", "a repair every five minutes, until it is stopped");
    VFixFirewall::FixFirewallStart();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // for the reader, to see the first repair
    VFixFirewall::FixFirewallStop();
}

}  // namespace

int main(int argc, char* argv[]) {
    // The archive functions hand the path to a shell.
    const char* const harmless = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    if (argc < 2 || argv[1][std::strspn(argv[1], harmless)] != '\0') {
        std::fprintf(stderr, "usage: %s DIRECTORY [--with-helper]\n", argv[0]);
        return 2;
    }
    const bool withHelper = argc > 2 && std::strcmp(argv[2], "--with-helper") == 0;

    VLogger::GetInstance()->StartSystem("tour.log", argv[1], 1, 1, kLogLevelInformation, 1024, true);
    const VPath file = ShowPath(argv[1]);
    ShowDirectory(file);
    ShowFile(file);
    ShowCompression(file);
    ShowMonitor(file);
    if (withHelper) {
        ShowHelperTool();
    } else {
        Heading("VFile::FileProtect, VFixFirewall", "left out, they need the product's helper tool");
    }
    VLogger::GetInstance()->StopSystem();
    return 0;
}
