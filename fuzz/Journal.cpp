// The readers of journals and receipts: whatever they accept is printed and read as itself, in whatever
// blocks it comes. The first byte of the input is the size of the blocks; the rest is the text.
#include "Journal.h"

#include <algorithm>
#include <string>

#include "Input.h"
#include "Judge.h"
#include "Receipt.h"

namespace {

std::string Printed(const Journal& journal) {
    std::string head;
    std::string text;
    for (const std::string_view block : Print(journal, head)) text += block;
    return text;
}

Trouble ParseInBlocks(const std::string& text, std::size_t blockSize, Journal& journal) {
    JournalParser parser;
    for (std::size_t begin = 0; begin < text.size(); begin += blockSize) {
        const ExactBlock block(std::string_view(text).substr(begin, blockSize));
        parser.Add({block.Data(), block.Size()});
    }
    return parser.Finish(journal);
}

void JudgeJournal(const std::string& text, std::size_t blockSize) {
    Journal journal;
    Journal whole;
    const std::string trouble = ParseInBlocks(text, blockSize, journal).value_or("");
    judge::Equal("the trouble with the text in one block",
                 ParseInBlocks(text, text.size() + 1, whole).value_or(""), trouble);
    if (!trouble.empty()) return;

    const std::string printed = Printed(journal);
    judge::Equal("the journal in one block", Printed(whole), printed);
    Journal again;
    judge::Equal("what is printed, read again,", ParseInBlocks(printed, blockSize, again).value_or(""),
                 std::string());
    judge::Equal("what is printed twice", Printed(again), printed);
}

void JudgeReceipt(const std::string& text) {
    Receipt receipt;
    if (Parse(text, receipt)) return;
    const std::string printed = Print(receipt);
    Receipt again;
    judge::Equal("the receipt, read again,", Parse(printed, again).value_or(""), std::string());
    judge::Equal("the receipt, printed twice", Print(again), printed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string text = BytesOf(data + 1, size - 1);
    JudgeJournal(text, std::max<std::size_t>(1, data[0]));
    JudgeReceipt(text);
    return 0;
}
