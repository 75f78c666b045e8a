// The DESFire session, selection and the legacy three-pass authentication.
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>

#include "desfire/desfire.h"
#include "desfire/operation.h"
#include "desfire/secure_messaging.h"

namespace elatectwn4::desfire {

namespace {

using command::cmd::DesfireAuthenticateStart;
using command::cmd::DesfireAuthenticateToken;
using command::cmd::SelectApplication;

constexpr std::size_t kBlock = 8;
constexpr std::int32_t kMaxKeyNumber = 13;

// The key halves of an authentication as hex text for the engine, and the
// algorithm they call for.
struct AuthenticationKey {
    std::int32_t algorithm = cipher::DES::kSingleDes;
    std::optional<SecretValue> k1;
    std::optional<SecretValue> k2;
};

// 32 digits: Triple-DES with K1, K2; 1..16 digits: single DES with the key
// as given (the engine fills a short key with zero bytes). nullopt for any
// other length.
std::optional<AuthenticationKey> SplitKey(const std::string& digits) {
    AuthenticationKey key;
    if (digits.size() == 32) {
        key.algorithm = cipher::DES::kTripleDes;
        key.k1.emplace(digits.substr(0, 16));
        key.k2.emplace(digits.substr(16));
    } else if (!digits.empty() && digits.size() <= 16) {
        key.k1.emplace(digits);
        key.k2.emplace(digits);
    } else {
        return std::nullopt;
    }
    return key;
}

// A challenge rotated left by one byte.
SecretBytes<kBlock> RotatedLeft(std::span<const std::uint8_t> challenge) {
    SecretBytes<kBlock> rotated;
    std::rotate_copy(challenge.begin(), challenge.begin() + 1, challenge.begin() + kBlock, rotated.span().begin());
    return rotated;
}

// One exchange of the authentication, with its secret parameter wiped afterwards.
Reply Step(Context& ctx, std::uint32_t code, command::Param param) {
    command::Params params{std::move(param)};
    Reply reply = Exchange(ctx, code, params, false);
    if (auto* text = std::get_if<std::string>(&params[0])) cipher::SecureWipe(*text);
    return reply;
}

}  // namespace

void OsRandom(std::span<std::uint8_t> out) {
    std::size_t done = 0;
    while (done < out.size()) {
        const ssize_t n = getrandom(out.data() + done, out.size() - done, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        done += static_cast<std::size_t>(n);
    }
}

cipher::DES& Session::Engine() {
    if (!cipherEngine) cipherEngine = std::make_unique<cipher::DES>();
    return *cipherEngine;
}

void Session::Reset() noexcept {
    selectedApplicationId.clear();
    sessionKey.Wipe();
    authenticatedKeyNumber = -1;
    versionCache.clear();
    cipherEngine.reset();  // its destructor overwrites the keys it holds
}

sceReturnCode DESFireSelectApplication(Context& ctx, const std::string& ApplicationId, std::int32_t KeyNumber,
                                       const std::string& KeyValue) {
    static const std::string kName = "DESFireSelectApplication";
    // The record is left as it stands: a refused select before a successful
    // authentication stays visible in it.
    std::string applicationId = ApplicationId;
    if (!IsApplicationId(applicationId)) return Refuse(ctx, ErrorNumber::IncorrectApplicationId, kName);
    if (KeyNumber < 0 || KeyNumber > kMaxKeyNumber) return Refuse(ctx, ErrorNumber::BadKeyNumber, kName);
    const std::optional<SecretText> digits = KeyDigits(KeyValue);
    if (!digits) return Refuse(ctx, ErrorNumber::InvalidKey, kName);
    const std::optional<AuthenticationKey> key = SplitKey(digits->get());
    if (!key) return Refuse(ctx, ErrorNumber::BadKeyLength, kName);

    // Only the reader can stop the selection: the card's answer to it shows
    // in the next step.
    if (Step(ctx, SelectApplication, applicationId).outcome == Reply::Outcome::ReaderFailed) {
        NameInFront(ctx, kName);
        return sceError;
    }

    const Reply challenge = Step(ctx, DesfireAuthenticateStart, std::int64_t{KeyNumber});
    if (challenge.outcome == Reply::Outcome::ReaderFailed) {
        NameInFront(ctx, kName);
        return sceError;
    }
    if (challenge.outcome != Reply::Outcome::Answered || !challenge.IsStatus(0xAF) || challenge.data.size() != kBlock) {
        return Refuse(ctx, ErrorNumber::CannotConnectToApplication, kName, "DesfireAuthenticate2", challenge.status);
    }

    cipher::DES& engine = ctx.session.Engine();
    LoadKeys(engine, key->k1->get(), key->k2->get());
    const std::int32_t receive = key->algorithm | cipher::DES::kCbc;
    const std::int32_t send = key->algorithm | cipher::DES::kSendMode;

    const SecretBuffer rndB = Transform(engine, receive, challenge.data);
    SecretBytes<kBlock> rndA;
    ctx.session.random(rndA.span());

    SecretBuffer token;
    token.Append(rndA.span());
    token.Append(RotatedLeft(rndB.span()).span());
    const SecretBuffer cryptogram = Transform(engine, send, token.span());

    const Reply proof = Step(ctx, DesfireAuthenticateToken, HexOf(cryptogram.span()));
    if (proof.outcome == Reply::Outcome::ReaderFailed) {
        NameInFront(ctx, kName);
        return sceError;
    }
    if (!proof.Completed()) {
        return Refuse(ctx, ErrorNumber::AuthenticationFailure, kName, "DesfireAuthenticate3", proof.status);
    }

    // The card proves it knows the key: RndA, rotated, comes back enciphered.
    const SecretBytes<kBlock> expected = RotatedLeft(rndA.span());
    const bool proven = proof.data.size() == kBlock && [&] {
        const SecretBuffer rndA2 = Transform(engine, receive, proof.data);
        return std::equal(rndA2.span().begin(), rndA2.span().end(), expected.span().begin());
    }();
    if (!proven) return Refuse(ctx, ErrorNumber::AuthenticationFailure, kName, "DesfireAuthenticate4", "RndA failed");

    // Session key: RndA 0..3, RndB 0..3, then RndA 4..7, RndB 4..7 for
    // Triple-DES, or the first four of each again for single DES, so that
    // its halves are equal and later steps know it for a DES key.
    const std::size_t second = key->algorithm == cipher::DES::kTripleDes ? 4 : 0;
    SecretBytes<16>& sessionKey = ctx.session.sessionKey;
    std::copy_n(rndA.data(), 4, sessionKey.data());
    std::copy_n(rndB.span().data(), 4, sessionKey.data() + 4);
    std::copy_n(rndA.data() + second, 4, sessionKey.data() + 8);
    std::copy_n(rndB.span().data() + second, 4, sessionKey.data() + 12);
    ctx.session.selectedApplicationId = applicationId;
    ctx.session.authenticatedKeyNumber = KeyNumber;
    return sceSuccess;
}

sceReturnCode DESFireSelectRoot(Context& ctx, const std::string& KeyValue) {
    const sceReturnCode result = DESFireSelectApplication(ctx, "00 00 00", 0, KeyValue);
    if (result != sceSuccess) NameInFront(ctx, "DESFireSelectRoot");
    return result;
}

}  // namespace elatectwn4::desfire
