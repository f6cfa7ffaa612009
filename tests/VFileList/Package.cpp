#include "Package.h"

Package::Package() {
    // What the file list leaves out need not be there, but the two directories are.
    (void)scratch_.MakeDirectory("installed");
    (void)scratch_.MakeDirectory("package/Common");
}

std::string Package::WriteList(const std::string& rest) const {
    return WriteRawList("[Package_Intall_Type]\nPackageIntallType=Server\n" + rest);
}

std::string Package::WriteRawList(std::string text) const {
    for (std::size_t at = 0; (at = text.find('@', at)) != std::string::npos;) {
        text.replace(at, 1, InstalledPath());
    }
    return scratch_.Write("package/filelist.ini", text);
}

std::string Package::WriteEntries(const std::string& entries) const {
    return WriteList("[Server]\nBin=@\n[Bin]\nf=" + entries + "\n");
}

std::string Package::Bring(const std::string& name, const std::string& content) const {
    return scratch_.Write("package/Common/" + name, content);
}

std::string Package::Install(const std::string& name, const std::string& content) const {
    return scratch_.Write("installed/" + name, content);
}

int Package::RunPass(const std::string& pass) const {
    return RunProcess({TOOL_PATH, pass, ListPath()}, {"VLOGGER_DIRECTORY=" + scratch_.Path("log")})
        .exitStatus;
}

ProcessResult Package::Run(const std::string& command, const std::vector<std::string>& options) const {
    return RunProcess(Concatenate({VFILELIST_PATH, command, ListPath()}, options));
}

nlohmann::json Package::RunJson(const std::string& command, const std::vector<std::string>& options,
                                int* exitStatus) const {
    const ProcessResult result = Run(command, Concatenate({"--json"}, options));
    if (exitStatus != nullptr) *exitStatus = result.exitStatus;
    return nlohmann::json::parse(result.out);
}
