// KillTree CALL COMMAND...: runs a command with all processes that it starts, and kills all of them before
// the CALLth of their system calls that has to do with a file of the product. Says how many such calls there
// were.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "TracedTree.h"

int main(int argc, char* argv[]) {
    if (argc < 3) return EXIT_FAILURE;
    TreeEvent event;
    event.at = std::atol(argv[1]);
    event.directories = {"/opt/app", "/opt/product", "/var/lib/vfilelist"};
    event.except = "/var/lib/vfilelist/package/filelist.ini";
    const TreeRun run = RunTracedTree(std::vector<std::string>(argv + 2, argv + argc), {}, event);
    (void)std::printf("%zu\n", run.calls.size());
    return EXIT_SUCCESS;
}
