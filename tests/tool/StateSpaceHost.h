// The states of StateSpace.h on a real file system, and the real commands on them.
#ifndef TESTS_TOOL_STATESPACEHOST_H
#define TESTS_TOOL_STATESPACEHOST_H

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FileList.h"
#include "FileSystem.h"
#include "Output.h"
#include "Package.h"
#include "StateDirectory.h"
#include "StateSpace.h"
#include "SystemCalls.h"

class RealHost {
public:
    explicit RealHost(std::size_t count);
    ~RealHost();
    RealHost(const RealHost&) = delete;
    RealHost& operator=(const RealHost&) = delete;

    // Makes it so. With an open upgrade the journal is the product's own, of the files that are there: it has
    // their inodes.
    void Build(const Host& host);
    Host Look() const;
    // Runs the command on what is there. A kill leaves what is there behind one of the calls that change
    // something: whichever process makes the call takes it down at once, and none has to die for it. A call
    // that is overlooked here leaves out a state that the model has.
    Outcome Run(Command command);
    // What `status` names, or `verify` when nothing is open.
    Advice Ask();
    // What the last command wrote.
    const std::string& said() const { return said_; }

private:
    struct Tape;
    struct Texts {
        std::string old, fresh, part, other;
    };

    std::string Name(std::size_t target) const { return names_[target]; }
    std::string Backup(std::size_t target) const { return names_[target] + ".bak"; }
    std::string Aside(std::size_t target) const;
    const std::string& TextOf(std::size_t target, What what) const;

    void WriteList() const;
    void Wipe() const;
    void Put(const std::string& path, std::size_t target, const Node& node) const;
    void PutTree(const Host& host) const;
    void Open(const Host& host);
    void MoveOld(std::size_t target, const Place& wanted) const;
    void LitterStateDirectory() const;

    void LookAtStage(Host& host) const;
    Node LookAtNode(const std::string& path, std::size_t target, ino_t old) const;
    What WhatIs(const std::string& path, std::size_t target, const struct stat& status) const;
    bool IsStrange() const;

    int Perform(Command command);
    int Pass(const char* pass) const;
    int RollBack(bool isPartial);

    bool IsWatched(const char* path) const;
    template <typename Other>
    static bool IsWatched(Other /*noPath*/) {
        return false;
    }
    template <typename Result, typename... Parameters>
    void TapeBehind(calls::Hook<Result(Parameters...)>& hook, Result (*real)(Parameters...));
    template <typename Signature>
    void Replace(calls::Hook<Signature>& hook, std::function<Signature> replacement);
    void ReplaceCalls();
    void TakeDown() const;

    const Umask umask_{022};
    const Package package_;
    const std::size_t count_;
    std::vector<std::string> names_;
    std::vector<Texts> texts_;
    std::optional<FileList> list_;
    const std::string state_;

    Tape* const tape_;
    std::size_t builds_ = 0;
    Host before_;
    std::array<ino_t, kMostTargets> installed_{};  // what stood at NAME when the command began
    std::array<ino_t, kMostTargets> marked_{};     // the old files
    std::string said_;
    FILE* written_ = nullptr;
    std::vector<std::shared_ptr<void>> replaced_;
};

#endif
