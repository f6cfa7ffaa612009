// Makes one of the calls that the library makes fail: the Nth of its name, or all from the Nth on.
#ifndef TESTS_FAULTS_FAULTGATE_H
#define TESTS_FAULTS_FAULTGATE_H

#include <map>
#include <string>

struct Fault {
    std::string call;  // a platform call's name, "malloc" for any allocation; empty for no fault at all
    long n;            // from 1 on
    bool isOnwards;    // this one and all behind it
    int error;         // what errno, or the call itself, says
};

namespace gate {

// While it is open, calls are counted, from 0 on, and `fault` happens.
void Open(const Fault& fault);
void Close();

// How often each call was made while the gate was open last.
std::map<std::string, long> Counts();

// How many calls have failed since the process started.
long Failures();

}  // namespace gate

#endif
