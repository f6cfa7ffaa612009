#include "Signature.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "FileSystem.h"
#include "Process.h"
#include "ScratchDirectory.h"
#include "Signer.h"
#include "SystemCalls.h"

namespace {

class SignatureTest : public testing::Test {
protected:
    std::string Check(const std::string& text) const {
        return ExpectSignature(text, signature_, trusted_).value_or("");
    }
    void Trust(const std::string& name, const std::string& key) const {
        scratch_.Write("trusted/" + name, key);
    }
    void Sign(const std::string& signature) const { scratch_.Write("text.sig", signature); }
    std::string NotTrusted() const { return signature_ + ": not the signature of a trusted key"; }

    const Umask umask_{022};
    const ScratchDirectory scratch_;
    const std::string signature_ = scratch_.Path("text.sig");
    const std::string trusted_ = scratch_.Path("trusted");
    const Signer maker_;
};

TEST_F(SignatureTest, AcceptsTheTextThatATrustedKeyHasSigned) {
    Trust("maker.pem", maker_.PublicKey());
    Sign(maker_.Signature("text"));
    EXPECT_EQ(Check("text"), "");

    Trust("another.pem", Signer().PublicKey());
    Trust("README", "what is no key has another ending");
    EXPECT_EQ(Check("text"), "") << "one of several keys";
}

TEST_F(SignatureTest, AcceptsWhatOpensslHasSigned) {
    SKIP_WITHOUT_PROGRAM("/usr/bin/openssl");
    scratch_.Write("text", "text");
    scratch_.MakeDirectory("trusted");
    const std::string commands = "cd " + scratch_.Path() +
                                 " && openssl genpkey -algorithm ed25519 -out maker.key"
                                 " && openssl pkey -in maker.key -pubout -out trusted/maker.pem"
                                 " && openssl pkeyutl -sign -rawin -inkey maker.key -in text -out text.sig";
    const ProcessResult result = RunProcess({"/bin/sh", "-c", commands});
    ASSERT_EQ(result.exitStatus, 0) << result.err;

    EXPECT_EQ(Check("text"), "");
    EXPECT_EQ(Check("test"), NotTrusted());
}

TEST_F(SignatureTest, RefusesAnyOtherTextSignatureOrKey) {
    const std::string text = "a text of several words";
    const std::string good = maker_.Signature(text);
    Trust("maker.pem", maker_.PublicKey());
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string other = text;
        other[i] = static_cast<char>(other[i] ^ 1);
        Sign(good);
        EXPECT_EQ(Check(other), NotTrusted()) << "byte " << i << " of the text";
    }
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string other = good;
        other[i] = static_cast<char>(other[i] ^ (1 << i % 8));
        Sign(other);
        EXPECT_EQ(Check(text), NotTrusted()) << "byte " << i << " of the signature";
    }
    for (const std::string& other : {std::string(), good.substr(1), good + "x", good + good,
                                     Signer().Signature(text), maker_.Signature("")}) {
        Sign(other);
        EXPECT_EQ(Check(text), NotTrusted());
    }
    Sign(good);
    EXPECT_EQ(Check(text), "");
}

TEST_F(SignatureTest, RefusesEverythingWithoutAKey) {
    Sign(maker_.Signature("text"));
    EXPECT_EQ(Check("text"), trusted_ + ": No such file or directory");

    scratch_.MakeDirectory("trusted");
    const std::string nobody = trusted_ + ": it has no trusted key";
    EXPECT_EQ(Check("text"), nobody);
    Trust("maker.key", maker_.PublicKey());
    EXPECT_EQ(Check("text"), nobody) << "only NAME.pem is a key";
}

TEST_F(SignatureTest, RefusesEverythingBesideAKeyThatIsNone) {
    Trust("maker.pem", maker_.PublicKey());
    Sign(maker_.Signature("text"));
    const std::string noKey = trusted_ + "/other.pem: no Ed25519 public key";
    Trust("other.pem", "");
    EXPECT_EQ(Check("text"), noKey);
    Trust("other.pem", maker_.PublicKey().substr(0, 60));
    EXPECT_EQ(Check("text"), noKey);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> curve(
        EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), &EVP_PKEY_free);
    Trust("other.pem", PublicKeyOf(curve.get()));
    EXPECT_EQ(Check("text"), noKey) << "a key of another kind";

    ASSERT_EQ(unlink((trusted_ + "/other.pem").c_str()), 0);
    scratch_.Link("trusted/other.pem", "maker.pem");
    EXPECT_EQ(Check("text"), trusted_ + "/other.pem: Too many levels of symbolic links") << "no links";
}

TEST_F(SignatureTest, RefusesEverythingWhenOthersCanWriteTheKeys) {
    Trust("maker.pem", maker_.PublicKey());
    Sign(maker_.Signature("text"));
    const std::string owner = ", owner " + std::to_string(geteuid()) + ":" + std::to_string(getegid()) + ")";
    for (const std::string& path : {trusted_, trusted_ + "/maker.pem"}) {
        ASSERT_EQ(chmod(path.c_str(), 0777), 0);
        EXPECT_EQ(Check("text"), path + ": others can write it (mode 0777" + owner);
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }
    EXPECT_EQ(Check("text"), "");
    const Replaced replaced(calls::stat, [this](const char* path, struct stat* status) {
        if (trusted_ + "/maker.pem" != path) return calls::real::stat(path, status);
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(Check("text"), trusted_ + "/maker.pem: Input/output error");
}

TEST_F(SignatureTest, RefusesEverythingWhenAnAccessControlListLetsOthersWriteTheKeys) {
    Trust("maker.pem", maker_.PublicKey());
    Sign(maker_.Signature("text"));
    // user::rwx, user:1234:rwx, group::r-x, mask::rwx or r-x, other::r-x
    const std::string begin("\2\0\0\0\1\0\7\0\377\377\377\377\2\0\7\0\322\4\0\0\4\0\5\0\377\377\377\377\20\0",
                            30);
    const std::string end("\0\377\377\377\377\40\0\5\0\377\377\377\377", 13);
    for (const std::string& path : {trusted_, trusted_ + "/maker.pem"}) {
        for (const char mask : {'\7', '\5'}) {
            const std::string list = begin + mask + end;
            if (setxattr(path.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) != 0)
                GTEST_SKIP() << "the file system has no access control lists";
            const std::string why = path + ": others can write it (an access control list)";
            EXPECT_EQ(Check("text"), mask == '\7' ? why : "");
        }
    }
}

TEST_F(SignatureTest, RefusesEverythingWithoutLibcryptosHelp) {
    Trust("maker.pem", maker_.PublicKey());
    Sign(maker_.Signature("text"));
    {
        const Replaced memory(calls::EVP_MD_CTX_new, []() -> void* { return nullptr; });
        EXPECT_EQ(Check("text"), NotTrusted());
    }
    const Replaced begin(calls::EVP_DigestVerifyInit,
                         [](void*, void*, const void*, void*, void*) { return 0; });
    EXPECT_EQ(Check("text"), NotTrusted());
}

TEST_F(SignatureTest, DoesNotReadWhatIsTooLongForASignature) {
    Trust("maker.pem", maker_.PublicKey());
    Sign("");
    ASSERT_EQ(truncate(signature_.c_str(), off_t{1} << 40), 0);
    EXPECT_EQ(Check("text"), NotTrusted());
}

TEST_F(SignatureTest, AsksNobodyForAPassword) {
    // An empty key with a password, in place of a public one.
    Trust("maker.pem",
          "-----BEGIN PUBLIC KEY-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,"
          "00112233445566778899AABBCCDDEEFF\n\nAAAAAAAAAAAAAAAAAAAAAA==\n-----END PUBLIC KEY-----\n");
    EXPECT_EQ(Check("text"), trusted_ + "/maker.pem: no Ed25519 public key");
}

TEST_F(SignatureTest, RefusesEverythingWhenSomethingCanNotBeRead) {
    Trust("maker.pem", maker_.PublicKey());
    EXPECT_EQ(Check("text"), signature_ + ": No such file or directory");

    Sign(maker_.Signature("text"));
    const auto fails = [](const std::string& path) {
        return [path](const char* opened, int flags, mode_t mode) {
            if (path != opened) return calls::real::open(opened, flags, mode);
            errno = EIO;
            return -1;
        };
    };
    for (const std::string& path : {signature_, trusted_ + "/maker.pem"}) {
        const Replaced replaced(calls::open, fails(path));
        EXPECT_EQ(Check("text"), path + ": Input/output error");
    }
}

TEST_F(SignatureTest, RefusesEverythingWhenTheKeysAreNoDirectory) {
    Sign(maker_.Signature("text"));
    scratch_.Write("trusted", "a file");
    EXPECT_EQ(Check("text"), trusted_ + ": Not a directory");
}

TEST_F(SignatureTest, IsWantedForAnyDirectoryButTheUsualOneThatIsMissing) {
    const auto finds = [](int error) {
        return [error](const char* path, struct stat* status) {
            if (std::string(path) != kUsualTrustedDirectory) return calls::real::lstat(path, status);
            errno = error;
            return error == 0 ? 0 : -1;
        };
    };
    EXPECT_TRUE(IsSignatureWanted(trusted_)) << "though it is missing";
    {
        const Replaced missing(calls::lstat, finds(ENOENT));
        EXPECT_FALSE(IsSignatureWanted(kUsualTrustedDirectory));
        EXPECT_TRUE(IsSignatureWanted(trusted_));
    }
    for (const int error : {0, EACCES, EIO, ENOTDIR}) {
        const Replaced replaced(calls::lstat, finds(error));
        EXPECT_TRUE(IsSignatureWanted(kUsualTrustedDirectory)) << error;
    }
}

TEST_F(SignatureTest, IsWantedWhereALinkAboveTheUsualDirectoryLeadsNowhere) {
    const std::string above = "/etc/vfilelist";
    bool doesLinkLead = false;
    const auto find = [](bool isFound) {
        errno = ENOENT;
        return isFound ? 0 : -1;
    };
    const Replaced links(calls::lstat, [&](const char* path, struct stat*) { return find(above == path); });
    const Replaced files(calls::stat,
                         [&](const char* path, struct stat*) { return find(above == path && doesLinkLead); });
    EXPECT_TRUE(IsSignatureWanted(kUsualTrustedDirectory));
    doesLinkLead = true;
    EXPECT_FALSE(IsSignatureWanted(kUsualTrustedDirectory));
}

}  // namespace
