// Runs what follows with an ordinary user's rights, also when root runs the tests.
#ifndef TESTS_SUPPORT_ORDINARYUSER_H
#define TESTS_SUPPORT_ORDINARYUSER_H

#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

// The real user, too, which access() asks for; the saved one stays, to come back by.
class OrdinaryUser {
public:
    OrdinaryUser() { Become(); }
    // One who may write the directory, too.
    explicit OrdinaryUser(const std::string& directory) {
        if (wasRoot_) std::filesystem::permissions(directory, std::filesystem::perms::all);
        Become();
    }
    ~OrdinaryUser() {
        if (wasRoot_) (void)!setresuid(0, 0, kUnchanged);
    }
    OrdinaryUser(const OrdinaryUser&) = delete;
    OrdinaryUser& operator=(const OrdinaryUser&) = delete;

private:
    void Become() const {
        if (wasRoot_ && setresuid(kNobody, kNobody, kUnchanged) != 0) {
            throw std::runtime_error("can't become an ordinary user");
        }
    }

    static constexpr uid_t kNobody = 65534;
    static constexpr uid_t kUnchanged = static_cast<uid_t>(-1);
    const bool wasRoot_ = geteuid() == 0;
};

#endif
