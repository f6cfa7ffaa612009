// Uses each public class of the installed package once, in the directory that the first argument names.
#include <VCompressAndDeCompress.h>
#include <VDir.h>
#include <VFile.h>
#include <VFixFirewall.h>
#include <VMonitorFiles.h>
#include <VPath.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

int failures = 0;

void Expect(bool isTrue, const char* what) {
    if (isTrue) return;
    (void)std::fprintf(stderr, "not so: %s\n", what);
    ++failures;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 2) return 2;

    const std::string base = argv[1];
    const VPath directory(base + "/here/../cache//");
    const PathText directoryText = directory.RealPath();
    Expect(directoryText.text == base + "/cache", "VPath canonicalises");

    Expect(VDir::VMkDir(directoryText.text, 0750) == 0, "VDir makes a directory");

    const std::string file = base + "/cache/data.bin";
    Expect(VFile::WriteBinFile(file.c_str(), "12345", 5) == 5, "VFile writes");
    Expect(VFile::VCopyFile(file.c_str(), (file + ".copy").c_str()) == 0, "VFile copies");
    char data[5] = {};
    Expect(VFile::ReadBinFile((file + ".copy").c_str(), data, sizeof(data)) == 5, "VFile reads");
    Expect(std::memcmp(data, "12345", sizeof(data)) == 0, "VFile reads what it wrote");

    char packed[64] = {};
    const int packedLength = VCompressAndDeCompress::GzipCompress(data, sizeof(data), packed, sizeof(packed));
    char unpacked[5] = {};
    Expect(VCompressAndDeCompress::GzipDecompress(packed, packedLength, unpacked, sizeof(unpacked)) == 5,
           "VCompressAndDeCompress unpacks");
    Expect(std::memcmp(unpacked, data, sizeof(data)) == 0, "VCompressAndDeCompress unpacks what it packed");

    const int monitor = VMonitorFiles::InotifyInit(nullptr);
    Expect(monitor >= 0, "VMonitorFiles makes a descriptor");
    VMonitorFiles::Inotifyclose(monitor);

    VFixFirewall::FixFirewallStop();  // starting it would mend this machine's firewall

    std::vector<std::string> files;
    VFile::ScanDirectoriesFiles(base, files);
    Expect(files.size() == 2, "VFile lists files");
    return failures == 0 ? 0 : 1;
}
