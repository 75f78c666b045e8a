// The DESFire session, selection and the legacy three-pass authentication.
#include <algorithm>
#include <optional>

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
std::optional<AuthenticationKey> SplitKey(std::string_view digits) {
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
cipher::SecretBytes<kBlock> RotatedLeft(std::span<const std::uint8_t> challenge) {
    cipher::SecretBytes<kBlock> rotated;
    std::rotate_copy(challenge.begin(), challenge.begin() + 1, challenge.begin() + kBlock, rotated.begin());
    return rotated;
}

}  // namespace

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
    const std::optional<cipher::SecretText> digits = KeyDigits(KeyValue);
    if (!digits) return Refuse(ctx, ErrorNumber::InvalidKey, kName);
    const std::optional<AuthenticationKey> key = SplitKey(digits->text());
    if (!key) return Refuse(ctx, ErrorNumber::BadKeyLength, kName);

    // Only the reader can stop the selection: the card's answer to it shows
    // in the next step.
    if (Exchange(ctx, SelectApplication, {applicationId}).outcome == Reply::Outcome::ReaderFailed) {
        NameInFront(ctx, kName);
        return sceError;
    }

    // The challenge is RndB enciphered with the key: no trace shows it.
    const Reply challenge = Exchange(ctx, DesfireAuthenticateStart, {std::int64_t{KeyNumber}}, {.secretAnswer = true});
    if (challenge.outcome == Reply::Outcome::ReaderFailed) {
        NameInFront(ctx, kName);
        return sceError;
    }
    if (challenge.outcome != Reply::Outcome::Answered || !challenge.IsStatus(0xAF) || challenge.data.size() != kBlock) {
        return Refuse(ctx, ErrorNumber::CannotConnectToApplication, kName, "DesfireAuthenticate2",
                      challenge.StatusText());
    }

    cipher::DES& engine = ctx.session.Engine();
    LoadKeys(engine, key->k1->get(), key->k2->get());
    const std::int32_t receive = key->algorithm | cipher::DES::kCbc;
    const std::int32_t send = key->algorithm | cipher::DES::kSendMode;

    const cipher::SecretBuffer rndB = Transform(engine, receive, challenge.data.view());
    cipher::SecretBytes<kBlock> rndA;
    ctx.session.random(std::span(rndA));

    cipher::SecretBuffer token;
    token.Append(rndA);
    const cipher::SecretBytes<kBlock> rotatedB = RotatedLeft(rndB.view());
    token.Append(rotatedB);
    const cipher::SecretBuffer cryptogram = Transform(engine, send, token.view());

    const Reply proof = Exchange(ctx, DesfireAuthenticateToken, {cipher::ByteView(cryptogram.view())},
                                 {.secretFrom = "[TOKEN]", .secretAnswer = true});
    if (proof.outcome == Reply::Outcome::ReaderFailed) {
        NameInFront(ctx, kName);
        return sceError;
    }
    if (!proof.Completed()) {
        return Refuse(ctx, ErrorNumber::AuthenticationFailure, kName, "DesfireAuthenticate3", proof.StatusText());
    }

    // The card proves it knows the key: RndA, rotated, comes back enciphered.
    const cipher::SecretBytes<kBlock> expected = RotatedLeft(rndA);
    const bool proven = proof.data.size() == kBlock && [&] {
        const cipher::SecretBuffer rndA2 = Transform(engine, receive, proof.data.view());
        return std::equal(rndA2.begin(), rndA2.end(), expected.begin(), expected.end());
    }();
    if (!proven) return Refuse(ctx, ErrorNumber::AuthenticationFailure, kName, "DesfireAuthenticate4", "RndA failed");

    // Session key: RndA 0..3, RndB 0..3, then RndA 4..7, RndB 4..7 for
    // Triple-DES, or the first four of each again for single DES, so that
    // its halves are equal and later steps know it for a DES key.
    const std::size_t second = key->algorithm == cipher::DES::kTripleDes ? 4 : 0;
    cipher::SecretBytes<16>& sessionKey = ctx.session.sessionKey;
    std::copy_n(rndA.data(), 4, sessionKey.data());
    std::copy_n(rndB.data(), 4, sessionKey.data() + 4);
    std::copy_n(rndA.data() + second, 4, sessionKey.data() + 8);
    std::copy_n(rndB.data() + second, 4, sessionKey.data() + 12);
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
