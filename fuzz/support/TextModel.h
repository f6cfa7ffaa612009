// How the stand-ins show any text, thought through once more in a slow and obvious way.
#ifndef FUZZ_SUPPORT_TEXTMODEL_H
#define FUZZ_SUPPORT_TEXTMODEL_H

#include <string>

std::string ModelOfEscaping(const std::string& text);

// The text without its control characters and without what is not UTF-8.
std::string WithoutUnprintable(const std::string& text);

#endif
