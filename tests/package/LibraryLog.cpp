// Starts the logger in the directory that the first argument names, and has three of the library's sources
// log.
#include <VCompressAndDeCompress.h>
#include <VDir.h>
#include <VLogger.h>
#include <VMonitorFiles.h>

int main(int argc, char* argv[]) {
    if (argc < 2) return 2;

    // Full detail (2): with the source that each line comes from.
    VLogger::GetInstance()->StartSystem("library.log", argv[1], 1, 2, kLogLevelInformation, 1024, false);
    (void)VDir::VChownDirAndFirstDepthFiles(argv[1], "no-such-user");
    (void)VCompressAndDeCompress::CompressFile("refused;");
    VMonitorFiles::Inotifyclose(VMonitorFiles::InotifyInit(nullptr));
    VLogger::GetInstance()->StopSystem();
    return 0;
}
