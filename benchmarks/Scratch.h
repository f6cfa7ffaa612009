// A directory for the benchmarks' files, removed at the end of the program.
#ifndef BENCHMARKS_SCRATCH_H
#define BENCHMARKS_SCRATCH_H

#include <cstddef>
#include <string>

// On a disk file system (TMPDIR or /var/tmp), and in memory (/dev/shm).
const std::string& DiskDirectory();
const std::string& MemoryDirectory();

// Bytes that don't compress well; the same ones in every run.
std::string SomeBytes(std::size_t size);

void WriteFile(const std::string& path, const std::string& content);

// The processor time of this process and of the children that it has waited for, in seconds.
double ProcessorTime();

#endif
