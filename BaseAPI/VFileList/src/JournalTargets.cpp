// Packs targets into bytes, and takes them out again.
#include "JournalTargets.h"

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace {

constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

// What is packed first of every target, and of its old file.
struct PackedNew {
    off_t size;
    Digest digest;
    mode_t mode;
    bool hasOwner;
    bool hasOld;
};
struct PackedOld {
    ino_t inode;
    off_t size;
    std::time_t seconds;
    std::uint32_t nanoseconds;
    std::uint32_t attributes;
    mode_t mode;
    Owner owner;
    bool isLink;
};

template <typename Value>
void Put(const Value& value, std::string& bytes) {
    static_assert(std::is_trivially_copyable_v<Value>, "its bytes are all of it");
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

void Put(const std::string& text, std::string& bytes) {
    Put(static_cast<std::uint32_t>(text.size()), bytes);
    bytes += text;
}

void Put(const OldFile& old, std::string& bytes) {
    const Attributes& attributes = old.attributes;
    PackedOld packed{};
    packed.inode = old.inode;
    packed.size = old.size;
    packed.seconds = old.modified.tv_sec;
    packed.nanoseconds = static_cast<std::uint32_t>(old.modified.tv_nsec);
    packed.attributes = static_cast<std::uint32_t>(attributes.extended.size());
    packed.mode = attributes.mode;
    packed.owner = {attributes.user, attributes.group};
    packed.isLink = old.isLink;
    Put(packed, bytes);
    for (const ExtendedAttribute& attribute : attributes.extended) {
        Put(attribute.name, bytes);
        Put(attribute.value, bytes);
    }
}

void Put(const JournalTarget& target, std::string& bytes) {
    const NewFile& package = target.package;
    Put(PackedNew{package.size, package.digest, package.mode, package.owner.has_value(),
                  target.old.has_value()},
        bytes);
    Put(target.path, bytes);
    Put(package.source, bytes);
    if (package.owner) Put(*package.owner, bytes);
    if (target.old) Put(*target.old, bytes);
}

// Takes out what was put in, in the same order.
class Unpacker {
public:
    Unpacker(const std::string& bytes, std::size_t& next) : bytes_(bytes), next_(next) {}

    template <typename Value>
    Value Take() {
        Value value{};
        std::memcpy(&value, bytes_.data() + next_, sizeof value);
        next_ += sizeof value;
        return value;
    }
    std::string TakeText() {
        const std::size_t size = Take<std::uint32_t>();
        next_ += size;
        return bytes_.substr(next_ - size, size);
    }

private:
    const std::string& bytes_;
    std::size_t& next_;
};

OldFile TakeOld(Unpacker& unpacker) {
    const auto packed = unpacker.Take<PackedOld>();
    OldFile old{packed.isLink,
                packed.inode,
                packed.size,
                {packed.seconds, static_cast<long>(packed.nanoseconds)},
                {packed.mode, packed.owner.user, packed.owner.group, {}}};
    for (std::uint32_t i = 0; i < packed.attributes; ++i) {
        std::string name = unpacker.TakeText();
        old.attributes.extended.push_back({std::move(name), unpacker.TakeText()});
    }
    return old;
}

JournalTarget TakeTarget(Unpacker& unpacker) {
    const auto packed = unpacker.Take<PackedNew>();
    JournalTarget target;
    target.path = unpacker.TakeText();
    target.package = {unpacker.TakeText(), packed.size, packed.mode, packed.digest};
    if (packed.hasOwner) target.package.owner = unpacker.Take<Owner>();
    if (packed.hasOld) target.old = TakeOld(unpacker);
    return target;
}

}  // namespace

std::optional<Attributes> JournalTarget::Wanted() const {
    if (old) return old->attributes;
    if (!package.owner) return std::nullopt;
    return Attributes{package.mode, package.owner->user, package.owner->group, {}};
}

JournalTargets::JournalTargets(std::initializer_list<JournalTarget> targets) {
    for (const JournalTarget& target : targets) push_back(target);
}

void JournalTargets::push_back(const JournalTarget& target) {
    if (blocks_.empty() || blocks_.back().size() >= kBlockSize) {
        if (!blocks_.empty()) blocks_.back().shrink_to_fit();
        blocks_.emplace_back();
    }
    Put(target, blocks_.back());
    ++size_;
}

JournalTargets::Iterator::Iterator(const std::vector<std::string>& blocks, std::size_t block)
    : blocks_(blocks), block_(block) {
    if (block_ < blocks_.size()) ++*this;
}

JournalTargets::Iterator& JournalTargets::Iterator::operator++() {
    if (next_ == blocks_[block_].size()) {
        ++block_;
        next_ = 0;
    }
    if (block_ == blocks_.size()) return *this;
    Unpacker unpacker(blocks_[block_], next_);
    target_ = TakeTarget(unpacker);
    return *this;
}
