// The library's operations written step by step in the obvious way: the baseline of the benchmarks.
#ifndef BENCHMARKS_PLAIN_H
#define BENCHMARKS_PLAIN_H

#include <string>
#include <vector>

namespace plain {

// Canonicalises an absolute path into `buffer` of 4096 bytes: a copy, then byte by byte, moving the rest of
// the text over each component that goes.
void Resolve(const char* text, char* buffer);

// Canonicalises in one pass over the text, copying what stays; other than VPath it examines the last
// component too.
void CleanCopy(const char* text, char* buffer);

// Copies in blocks of 2048 bytes between two file streams.
int CopyFile(const char* source, const char* destination);

// Lists the regular files below `path`, one stat an entry.
void ScanFiles(const std::string& path, std::vector<std::string>& files);

// Makes `path` and its parents, one stat and at most one mkdir each.
int MakeDirectories(const char* path, unsigned mode);

}  // namespace plain

#endif
