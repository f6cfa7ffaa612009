// Runs what follows with an ordinary user's rights, also when root runs the tests.
#ifndef TESTS_PLATFORM_ORDINARYUSER_H
#define TESTS_PLATFORM_ORDINARYUSER_H

#include <unistd.h>

#include <stdexcept>

class OrdinaryUser {
public:
    OrdinaryUser() : wasRoot_(geteuid() == 0) {
        if (wasRoot_ && seteuid(kNobody) != 0) throw std::runtime_error("can't become an ordinary user");
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
