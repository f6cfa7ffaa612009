// Writes the reports to standard output and the progress line to standard error.
#include "Output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr auto kProgressDelay = std::chrono::milliseconds(500);
constexpr auto kProgressPeriod = std::chrono::milliseconds(100);

bool IsTerminal(int fd) {
    const char* const terminal = std::getenv("TERM");
    return isatty(fd) == 1 && (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}

bool IsColourWanted(const std::string& colour) {
    if (colour != "auto") return colour == "always";
    const char* const noColour = std::getenv("NO_COLOR");
    return IsTerminal(STDOUT_FILENO) && (noColour == nullptr || noColour[0] == '\0');
}

// JSON is UTF-8; what is not becomes U+FFFD.
std::string Dump(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The bytes of the UTF-8 character at `begin`; 0 for a control character and for what is not UTF-8, since a
// terminal that expects another encoding takes the bytes 0x80 to 0x9f for control characters.
std::size_t PrintableLength(const std::string& text, std::size_t begin) {
    const auto byteAt = [&text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned lead = byteAt(begin);
    if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;

    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || begin + length > text.size()) return 0;
    unsigned code = lead & (0xffU >> (length + 1));
    for (std::size_t at = begin + 1; at < begin + length; ++at) {
        if ((byteAt(at) & 0xc0U) != 0x80) return 0;
        code = code << 6U | (byteAt(at) & 0x3fU);
    }
    constexpr std::array<unsigned, 5> firsts = {0, 0, 0xa0, 0x800, 0x10000};  // U+0080 to U+009F are controls
    const bool isSurrogate = code >= 0xd800 && code < 0xe000;
    return code >= firsts[length] && code <= 0x10ffff && !isSurrogate ? length : 0;
}

}  // namespace

Output::Output(bool isJson, const std::string& colour)
    : isJson_(isJson),
      isColoured_(!isJson && IsColourWanted(colour)),
      showsProgress_(IsTerminal(STDERR_FILENO)),
      lastProgress_(std::chrono::steady_clock::now() + kProgressDelay - kProgressPeriod) {}

Output::~Output() {
    ClearProgress();
}

void Output::Line(const std::string& line) {
    if (!isJson_) Write(line + "\n");
}

std::string Output::Paint(Style style, const std::string& text) const {
    constexpr const char* kColours[] = {"", "\033[1m", "\033[2m", "\033[32m", "\033[33m", "\033[31m"};
    if (!isColoured_ || style == Style::kPlain) return text;
    return kColours[static_cast<int>(style)] + text + "\033[0m";
}

void Output::Member(const std::string& name, const Json& value) {
    if (!isJson_) return;
    Write(separator_ + Dump(name) + ": " + Dump(value));
    separator_ = ",\n";
}

void Output::BeginList(const std::string& name) {
    if (!isJson_) return;
    Write(separator_ + Dump(name) + ": [");
    separator_ = "\n";
}

void Output::Item(const Json& item) {
    if (!isJson_) return;
    Write(separator_ + Dump(item));
    separator_ = ",\n";
}

void Output::EndList() {
    if (!isJson_) return;
    Write("]");
    separator_ = ",\n";
}

void Output::EndJson() {
    if (isJson_) Write("\n}\n");
}

void Output::Progress(const char* work, std::size_t done, std::size_t total) {
    if (!IsProgressDue()) return;
    ShowProgress(std::string(work) + ": " + std::to_string(done) + " of " + std::to_string(total) + " files");
}

void Output::ProgressOfBytes(const char* work, unsigned long long done, unsigned long long total) {
    if (!bytesBegun_) bytesBegun_ = std::chrono::steady_clock::now();
    if (!IsProgressDue()) return;
    std::string text = std::string(work) + ": " + ShownSize(done) + " of " + ShownSize(total);
    if (done > 0 && done < total) {
        const std::chrono::duration<double> spent = lastProgress_ - *bytesBegun_;
        const double left = spent.count() * static_cast<double>(total - done) / static_cast<double>(done);
        text += ", " + std::to_string(static_cast<long>(left) + 1) + " s left";
    }
    ShowProgress(text);
}

bool Output::Finish() {
    ClearProgress();
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

void Output::Write(const std::string& text) {
    ClearProgress();
    (void)std::fwrite(text.data(), 1, text.size(), stdout);  // Finish tells
}

bool Output::IsProgressDue() {
    const auto now = std::chrono::steady_clock::now();
    if (!showsProgress_ || now - lastProgress_ < kProgressPeriod) return false;
    lastProgress_ = now;
    return true;
}

void Output::ShowProgress(const std::string& text) {
    isProgressShown_ = true;
    (void)std::fflush(stdout);
    (void)std::fprintf(stderr, "\r\033[K%s", text.c_str());
}

void Output::ClearProgress() {
    if (!isProgressShown_) return;
    isProgressShown_ = false;
    (void)std::fputs("\r\033[K", stderr);
}

std::string Shown(const std::string& text) {
    std::string shown;
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = PrintableLength(text, i);
        if (length > 0) {
            shown.append(text, i, length);
            i += length;
            continue;
        }
        std::array<char, 8> escaped{};
        (void)std::snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned char>(text[i++]));
        shown += escaped.data();
    }
    return shown;
}

std::string Padded(const std::string& text, std::size_t width) {
    return text + std::string(std::max(width, text.size()) - text.size(), ' ');
}

std::string RightAligned(const std::string& text, std::size_t width) {
    return std::string(std::max(width, text.size()) - text.size(), ' ') + text;
}

std::string ShownSize(unsigned long long bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";

    constexpr std::array<const char*, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double size = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; size >= 1000; ++unit) size /= 1024;  // there are not more than 16 EiB
    std::array<char, 32> shown{};
    (void)std::snprintf(shown.data(), shown.size(), "%.1f %s", size, units[unit]);
    return shown.data();
}

std::string Counted(std::size_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string ShownMode(unsigned mode) {
    std::array<char, 16> shown{};
    (void)std::snprintf(shown.data(), shown.size(), "%04o", mode & 07777U);
    return shown.data();
}
