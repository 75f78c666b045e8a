#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "elatectwn4/c_handle.h"
#include "elatectwn4/dispatch.h"

// What a handle of the C interface holds; only this file knows.
struct elatectwn4_encoder {
    std::unique_ptr<elatectwn4::Encoder> encoder;
    std::function<void()> onDestroy;  ///< after the encoder is gone (the simulator saves its card)
};

using elatectwn4::DispatchError;
using elatectwn4::Encoder;
using elatectwn4::MemberKind;
using elatectwn4::Variant;

namespace elatectwn4::c_api {

char* Duplicate(std::string_view text) noexcept {
    auto* out = static_cast<char*>(std::malloc(text.size() + 1));
    if (out == nullptr) return nullptr;
    if (!text.empty()) std::memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
    return out;
}

elatectwn4_encoder* WrapEncoder(std::unique_ptr<Encoder> encoder, std::function<void()> onDestroy) noexcept {
    if (!encoder) return nullptr;
    return new (std::nothrow) elatectwn4_encoder{std::move(encoder), std::move(onDestroy)};
}

}  // namespace elatectwn4::c_api

namespace {

using elatectwn4::c_api::Duplicate;

void SetMessage(char** message, std::string_view text) {
    if (message != nullptr) *message = Duplicate(text);
}

// A Byte out of 0..255 is refused as a Long out of its range is, rather than
// cut to its low eight bits (258 would pass as 2: key B).
bool ToVariant(const elatectwn4_value& in, Variant& out, std::size_t index) {
    switch (in.type) {
        case ELATECTWN4_EMPTY:
            out = std::monostate{};
            return true;
        case ELATECTWN4_BOOL:
            out = in.number != 0;
            return true;
        case ELATECTWN4_BYTE:
            out = elatectwn4::ConvertArgument(Variant{in.number}, elatectwn4::ValueType::Byte, static_cast<int>(index));
            return true;
        case ELATECTWN4_LONG:
            out = in.number;
            return true;
        case ELATECTWN4_DOUBLE:
            out = in.real;
            return true;
        case ELATECTWN4_STRING:
            out = in.text == nullptr ? std::string() : std::string(in.text, in.length);
            return true;
        case ELATECTWN4_BYTES:
            out = in.text == nullptr ? std::vector<std::uint8_t>()
                                     : std::vector<std::uint8_t>(in.text, in.text + in.length);
            return true;
    }
    return false;
}

elatectwn4_value FromVariant(const Variant& v) {
    elatectwn4_value out{};
    std::visit(
        [&](const auto& x) {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, bool>) {
                out.type = ELATECTWN4_BOOL;
                out.number = x ? 1 : 0;
            } else if constexpr (std::is_same_v<T, std::uint8_t>) {
                out.type = ELATECTWN4_BYTE;
                out.number = x;
            } else if constexpr (std::is_same_v<T, std::int32_t>) {
                out.type = ELATECTWN4_LONG;
                out.number = x;
            } else if constexpr (std::is_same_v<T, double>) {
                out.type = ELATECTWN4_DOUBLE;
                out.real = x;
            } else if constexpr (std::is_same_v<T, std::string>) {
                out.type = ELATECTWN4_STRING;
                out.text = Duplicate(x);
                out.length = x.size();
            } else if constexpr (std::is_same_v<T, std::vector<std::uint8_t>>) {
                out.type = ELATECTWN4_BYTES;
                out.text = Duplicate(std::string_view(reinterpret_cast<const char*>(x.data()), x.size()));
                out.length = x.size();
            }
        },
        v);
    return out;
}

int CallCode(DispatchError::Reason reason) {
    switch (reason) {
        case DispatchError::Reason::UnknownName:
            return ELATECTWN4_CALL_UNKNOWN_NAME;
        case DispatchError::Reason::BadParamCount:
            return ELATECTWN4_CALL_BAD_PARAM_COUNT;
        case DispatchError::Reason::TypeMismatch:
            return ELATECTWN4_CALL_TYPE_MISMATCH;
        case DispatchError::Reason::Overflow:
            return ELATECTWN4_CALL_OVERFLOW;
    }
    return ELATECTWN4_CALL_INVALID;
}

constexpr std::int32_t kError = ELATECTWN4_SCE_ERROR;

// Every function of the C interface runs its work through this: nothing may
// unwind into a C caller's frame, so any exception becomes `failed`.
template <typename R, typename Body>
R Guard(R failed, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return failed;
    }
}

}  // namespace

extern "C" {

elatectwn4_encoder* elatectwn4_create(void) {
    try {
        return elatectwn4::c_api::WrapEncoder(std::make_unique<Encoder>());
    } catch (...) {
        return nullptr;
    }
}

void elatectwn4_destroy(elatectwn4_encoder* encoder) {
    if (encoder == nullptr) return;
    try {
        encoder->encoder.reset();
        if (encoder->onDestroy) encoder->onDestroy();
    } catch (...) {
        // Destruction reports nothing; a simulator that cannot save has said so on stderr.
    }
    delete encoder;
}

int elatectwn4_call(elatectwn4_encoder* encoder, const char* member, int kind, elatectwn4_value* args, size_t count,
                    elatectwn4_value* result, char** message) {
    if (message != nullptr) *message = nullptr;
    if (result != nullptr) *result = elatectwn4_value{};
    if (encoder == nullptr || member == nullptr || (count != 0 && args == nullptr) || kind < ELATECTWN4_METHOD ||
        kind > ELATECTWN4_PROPERTY_PUT) {
        SetMessage(message, "invalid encoder, member name, argument list or member kind");
        return ELATECTWN4_CALL_INVALID;
    }
    try {
        std::vector<Variant> values(count);
        for (size_t i = 0; i < count; ++i) {
            if (!ToVariant(args[i], values[i], i)) {
                SetMessage(message, "argument " + std::to_string(i + 1) + ": unknown value type");
                return ELATECTWN4_CALL_INVALID;
            }
        }
        const auto memberKind = static_cast<MemberKind>(kind);
        const auto called = elatectwn4::Invoke(*encoder->encoder, member, memberKind, values);
        const auto* info = elatectwn4::FindMember("_Encoder", member, memberKind);
        for (size_t i = 0; i < count && info != nullptr && i < info->params.size(); ++i) {
            if (info->params[i].inOut) args[i] = FromVariant(values[i]);
        }
        if (result != nullptr) *result = FromVariant(called.value);
        return ELATECTWN4_CALL_OK;
    } catch (const DispatchError& e) {
        SetMessage(message, e.what());
        return CallCode(e.reason());
    } catch (const std::exception& e) {
        SetMessage(message, e.what());
        return ELATECTWN4_CALL_INVALID;
    } catch (...) {
        SetMessage(message, "unexpected failure");
        return ELATECTWN4_CALL_INVALID;
    }
}

size_t elatectwn4_member_count(void) {
    return Guard(size_t{0}, [] { return elatectwn4::Members().size(); });
}

char* elatectwn4_member_signature(size_t index) {
    return Guard<char*>(nullptr, [&]() -> char* {
        const auto members = elatectwn4::Members();
        if (index >= members.size()) return nullptr;
        const auto& m = members[index];
        return Duplicate(std::string(m.interfaceName) + "." + elatectwn4::Signature(m));
    });
}

int32_t elatectwn4_last_error(elatectwn4_encoder* encoder, elatectwn4_error* error) {
    if (error != nullptr) *error = elatectwn4_error{};
    if (encoder == nullptr) return 0;
    return Guard(int32_t{0}, [&] {
        const auto& e = encoder->encoder->LastError();
        if (error != nullptr) {
            *error = elatectwn4_error{e.Number,
                                      Duplicate(e.Description),
                                      e.LastDllError,
                                      Duplicate(e.ComFunction),
                                      Duplicate(e.RdrCommand),
                                      Duplicate(e.RdrRetCode)};
        }
        return e.Number;
    });
}

void elatectwn4_set_reader(elatectwn4_encoder* encoder, const char* reader_name) {
    if (encoder == nullptr) return;
    try {
        encoder->encoder->Parameters(std::string("Device=") + (reader_name ? reader_name : ""));
    } catch (...) {
        // Only memory can run out here; the encoder keeps its previous reader.
    }
}

int32_t elatectwn4_open(elatectwn4_encoder* encoder) {
    return Guard(kError, [&] { return encoder ? encoder->encoder->OpenEncoder() : kError; });
}

int32_t elatectwn4_close(elatectwn4_encoder* encoder) {
    return Guard(kError, [&] { return encoder ? encoder->encoder->CloseEncoder() : kError; });
}

int32_t elatectwn4_state(elatectwn4_encoder* encoder) {
    return Guard(int32_t{0}, [&] { return encoder ? encoder->encoder->EncoderState() : 0; });
}

int32_t elatectwn4_read_serial_number(elatectwn4_encoder* encoder, char** serial_number) {
    if (serial_number != nullptr) *serial_number = nullptr;
    if (encoder == nullptr) return kError;
    return Guard(kError, [&] {
        std::string uid;
        const auto rc = encoder->encoder->ReadSerialNumber(uid);
        if (serial_number != nullptr) *serial_number = Duplicate(uid);
        return rc;
    });
}

char* elatectwn4_atr(elatectwn4_encoder* encoder) {
    return Guard<char*>(nullptr, [&] { return encoder ? Duplicate(encoder->encoder->ATRString()) : nullptr; });
}

int32_t elatectwn4_card_type(elatectwn4_encoder* encoder) {
    return Guard(int32_t{0}, [&] { return encoder ? encoder->encoder->CardType() : 0; });
}

int32_t elatectwn4_read_block(elatectwn4_encoder* encoder, int32_t block, const char* key, uint8_t key_type,
                              char** contents) {
    if (contents != nullptr) *contents = nullptr;
    if (encoder == nullptr) return kError;
    return Guard(kError, [&] {
        std::string text;
        const auto rc = encoder->encoder->ReadDataBloc(block, key ? key : "", key_type, text);
        if (contents != nullptr) *contents = Duplicate(text);
        return rc;
    });
}

int32_t elatectwn4_write_block(elatectwn4_encoder* encoder, int32_t block, const char* key, uint8_t key_type,
                               const char* contents) {
    if (encoder == nullptr) return kError;
    return Guard(kError, [&] {
        std::string text = contents ? contents : "";
        return encoder->encoder->WriteDataBloc(block, key ? key : "", key_type, text);
    });
}

char* elatectwn4_response_text(elatectwn4_encoder* encoder, const char* sw1sw2, const char* encoder_command) {
    if (encoder == nullptr) return nullptr;
    return Guard<char*>(nullptr, [&] {
        return Duplicate(
            encoder->encoder->GetResponseText(sw1sw2 ? sw1sw2 : "", encoder_command ? encoder_command : ""));
    });
}

void elatectwn4_free(void* text) {
    std::free(text);
}

void elatectwn4_value_clear(elatectwn4_value* value) {
    if (value == nullptr) return;
    std::free(value->text);
    *value = elatectwn4_value{};
}

void elatectwn4_error_clear(elatectwn4_error* error) {
    if (error == nullptr) return;
    std::free(error->description);
    std::free(error->com_function);
    std::free(error->rdr_command);
    std::free(error->rdr_ret_code);
    *error = elatectwn4_error{};
}

}  // extern "C"
