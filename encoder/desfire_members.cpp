// The Encoder's DESFire members. Each runs its worker with the DESFire
// context of this session under the member guard.
#include <string>
#include <utility>

#include "desfire/desfire.h"
#include "elatectwn4/encoder.h"
#include "encoder/encoder_impl.h"

namespace elatectwn4 {

namespace {

// Runs member `name`'s worker with the session's DESFire context.
template <typename Work>
sceReturnCode RunDesfire(Encoder::Impl& impl, const char* name, Work&& work,
                         RecordRule rule = RecordRule::Clear) noexcept {
    return impl.GuardIn(&Encoder::Impl::desfireContext, name, std::forward<Work>(work), rule);
}

}  // namespace

sceReturnCode Encoder::DESFireSelectApplication(const std::string& ApplicationId, std::int32_t KeyNumber,
                                                const std::string& KeyValue) {
    return RunDesfire(
        *impl_, "DESFireSelectApplication",
        [&](desfire::Context& ctx) {
            return desfire::DESFireSelectApplication(ctx, ApplicationId, KeyNumber, KeyValue);
        },
        RecordRule::Keep);  // a selection leaves the record of the call before it
}

sceReturnCode Encoder::DESFireSelectRoot(const std::string& KeyValue) {
    return RunDesfire(
        *impl_, "DESFireSelectRoot", [&](desfire::Context& ctx) { return desfire::DESFireSelectRoot(ctx, KeyValue); },
        RecordRule::Keep);
}

sceReturnCode Encoder::DESFireFormat() {
    return RunDesfire(*impl_, "DESFireFormat", [&](desfire::Context& ctx) { return desfire::DESFireFormat(ctx); });
}

sceReturnCode Encoder::DESFireCreateApplication(const std::string& ApplicationId, DesfireKeySettings KeySettings,
                                                std::int32_t NumOfKeys) {
    return RunDesfire(*impl_, "DESFireCreateApplication", [&](desfire::Context& ctx) {
        return desfire::DESFireCreateApplication(ctx, ApplicationId, KeySettings, NumOfKeys);
    });
}

sceReturnCode Encoder::DESFireDeleteApplication(const std::string& ApplicationId) {
    return RunDesfire(*impl_, "DESFireDeleteApplication",
                      [&](desfire::Context& ctx) { return desfire::DESFireDeleteApplication(ctx, ApplicationId); });
}

sceReturnCode Encoder::DESFireGetApplications(std::string& Applications) {
    return RunDesfire(*impl_, "DESFireGetApplications",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetApplications(ctx, Applications); });
}

sceReturnCode Encoder::DESFireGetVersion(DesfireVersionBytes RequestedInformation, Variant& Information) {
    return RunDesfire(*impl_, "DESFireGetVersion", [&](desfire::Context& ctx) {
        return desfire::DESFireGetVersion(ctx, RequestedInformation, Information);
    });
}

sceReturnCode Encoder::DESFireChangeKey(std::int32_t KeyNumber, const std::string& OldKey, const std::string& NewKey) {
    return RunDesfire(*impl_, "DESFireChangeKey",
                      [&](desfire::Context& ctx) { return desfire::DESFireChangeKey(ctx, KeyNumber, OldKey, NewKey); });
}

sceReturnCode Encoder::DESFireGetKeyVersion(std::int32_t KeyNumber, std::int32_t& KeyVersion) {
    return RunDesfire(*impl_, "DESFireGetKeyVersion",
                      [&](desfire::Context& ctx) { return desfire::DESFireGetKeyVersion(ctx, KeyNumber, KeyVersion); });
}

sceReturnCode Encoder::DESFireGetKeySettings(std::int32_t& KeySettings, std::int32_t& KeyCount) {
    return RunDesfire(*impl_, "DESFireGetKeySettings", [&](desfire::Context& ctx) {
        return desfire::DESFireGetKeySettings(ctx, KeySettings, KeyCount);
    });
}

sceReturnCode Encoder::DESFireChangeKeySettings(DesfireKeySettings KeySettings) {
    return RunDesfire(*impl_, "DESFireChangeKeySettings",
                      [&](desfire::Context& ctx) { return desfire::DESFireChangeKeySettings(ctx, KeySettings); });
}

}  // namespace elatectwn4
