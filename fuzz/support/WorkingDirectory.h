// A working directory that costs no system call: the program's getcwd stands in front of the platform's.
#ifndef FUZZ_SUPPORT_WORKINGDIRECTORY_H
#define FUZZ_SUPPORT_WORKINGDIRECTORY_H

#include <string>

// Makes `text` the working directory of everything in this program, in the form in which the kernel would
// give it: absolute, without empty components, "." and "..", in whatever length. Returns it.
std::string PretendWorkingDirectory(const std::string& text);

#endif
