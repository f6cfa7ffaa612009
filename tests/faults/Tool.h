// The upgrade tool as a function of this process.
#ifndef TESTS_FAULTS_TOOL_H
#define TESTS_FAULTS_TOOL_H

// The main of the tool's module; the test program has one of its own.
extern "C" int VCopyFileListIniMain(int argc, char* argv[]);

// `pass`: "-rename", "-copy" or "-clean". Gives the tool's result.
inline int RunTool(const char* pass, const char* list) {
    char* arguments[] = {const_cast<char*>("VCopyFileListIni"), const_cast<char*>(pass),
                         const_cast<char*>(list)};
    return VCopyFileListIniMain(3, arguments);
}

#endif
