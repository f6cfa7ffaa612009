// Runs what follows with an ordinary user's rights, also when root runs the tests. For the real user, whom
// access() and the shell go by, root stays root.
#ifndef TESTS_SUPPORT_ORDINARYUSER_H
#define TESTS_SUPPORT_ORDINARYUSER_H

#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

class OrdinaryUser {
public:
    OrdinaryUser() : wasRoot_(geteuid() == 0) {
        if (wasRoot_ && seteuid(kNobody) != 0) throw std::runtime_error("can't become an ordinary user");
    }
    // One who may also write the directory.
    explicit OrdinaryUser(const std::string& directory) : OrdinaryUser() {
        if (!wasRoot_) return;
        (void)!seteuid(0);
        std::filesystem::permissions(directory, std::filesystem::perms::all);
        if (seteuid(kNobody) != 0) throw std::runtime_error("can't become an ordinary user");
    }
    ~OrdinaryUser() {
        if (wasRoot_) (void)!seteuid(0);
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    static constexpr uid_t kNobody = 65534;
    const bool wasRoot_;
};

#endif
