// What vfilelist shows: lines for people, coloured on a terminal, or JSON; and a progress line for long work.
#ifndef VFILELIST_OUTPUT_H
#define VFILELIST_OUTPUT_H

#include <chrono>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

using Json = nlohmann::ordered_json;

enum class Style { kPlain, kBold, kDim, kGood, kWarning, kError };

// The exit statuses of every subcommand.
constexpr int kFine = 0;
constexpr int kFindings = 1;  // or not the state that was asked for
constexpr int kWrongUse = 2;  // or a file list that can't be read
constexpr int kLook = 3;      // vfilelist has lost nothing, but a person should look at what is named

class Output {
public:
    // `colour` is always, never or auto: on a terminal, unless NO_COLOR is set. JSON has none.
    explicit Output(bool isJson, const std::string& colour = "auto");
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool isJson() const { return isJson_; }

    // For people; nothing with JSON.
    void Line(const std::string& line = "");
    std::string Paint(Style style, const std::string& text) const;

    // With JSON, the members of one object, in the order of the calls; otherwise nothing. Items are written
    // as they come, so that a long list takes no memory.
    void Member(const std::string& name, const Json& value);
    void BeginList(const std::string& name);
    void Item(const Json& item);
    void EndList();
    void EndJson();

    // The progress line, on a terminal only: `done` of `total` files. It shows up when the work takes long.
    void Progress(const char* work, std::size_t done, std::size_t total);
    // The same in bytes, with the time left.
    void ProgressOfBytes(const char* work, unsigned long long done, unsigned long long total);

    // False when something could not be written.
    bool Finish();

private:
    void Write(const std::string& text);
    bool IsProgressDue();
    void ShowProgress(const std::string& text);
    void ClearProgress();

    const bool isJson_;
    const bool isColoured_;
    const bool showsProgress_;
    std::string separator_ = "{\n";
    bool isProgressShown_ = false;
    std::chrono::steady_clock::time_point lastProgress_;
    std::optional<std::chrono::steady_clock::time_point> bytesBegun_;
};

// `text` with control characters escaped: a name must not steer a terminal nor forge a line.
std::string Shown(const std::string& text);

// `text` filled up with blanks to `width` columns, and with the blanks in front.
std::string Padded(const std::string& text, std::size_t width);
std::string RightAligned(const std::string& text, std::size_t width);

// A number of bytes in at most 10 columns: "512 B", "1.2 KiB".
std::string ShownSize(unsigned long long bytes);
// "1 file", "2 files".
std::string Counted(std::size_t count, const std::string& noun);
// The permission bits as chmod takes them: "0755".
std::string ShownMode(unsigned mode);

#endif
