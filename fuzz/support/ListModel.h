// What the upgrade tool's module promises of texts, thought through once more in a slow and obvious way.
#ifndef FUZZ_SUPPORT_LISTMODEL_H
#define FUZZ_SUPPORT_LISTMODEL_H

#include <string>
#include <vector>

std::vector<std::string> ModelOfSplit(const std::string& text, const std::string& delimiter);

std::string ModelOfFileName(const std::string& path);

#endif
