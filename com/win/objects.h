// The automation objects: Encoder (interface _Encoder) and the CError record
// its LastError returns (interface _CError). Both answer IDispatch from the
// member table, so late-bound hosts (scripts) reach every member, and their
// dual interface, whose vtable early-bound hosts call.
#pragma once

// clang-format off
#include <windows.h>
#include <oleauto.h>
// clang-format on

#include <atomic>
#include <string_view>
#include <vector>

#include "com/win/dual_vtable.h"
#include "elatectwn4/dispatch.h"

namespace elatectwn4::com::win {

class DispatchObject : public IDispatch {
public:
    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    // IDispatch
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** info) override;
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID, DISPID* ids) override;
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                     EXCEPINFO* exception, UINT* argumentError) override;

protected:
    DispatchObject(std::string_view interfaceName, const GUID& interfaceId);
    virtual ~DispatchObject();
    DispatchObject(const DispatchObject&) = delete;
    DispatchObject& operator=(const DispatchObject&) = delete;

    /// Runs the member; throws DispatchError when the call cannot be made.
    virtual DispatchResult Call(const MemberInfo& member, std::vector<Variant>& args) = 0;
    /// The automation object for a member's CError result (AddRef'd).
    virtual IDispatch* ErrorObjectFor(CError& record) = 0;

private:
    std::atomic<ULONG> references_{1};
    std::string_view interfaceName_;
    const GUID& interfaceId_;
    DualFace dual_;
};

/// The creatable class: one Encoder over the server's PC/SC boundary.
class EncoderObject final : public DispatchObject {
public:
    EncoderObject();

private:
    DispatchResult Call(const MemberInfo& member, std::vector<Variant>& args) override;
    IDispatch* ErrorObjectFor(CError& record) override;

    Encoder encoder_;
};

/// The record of an Encoder's last failure; keeps its Encoder alive.
class ErrorObject final : public DispatchObject {
public:
    ErrorObject(IDispatch* owner, CError& record);
    ~ErrorObject() override;

private:
    DispatchResult Call(const MemberInfo& member, std::vector<Variant>& args) override;
    IDispatch* ErrorObjectFor(CError& record) override;

    IDispatch* owner_;
    CError& record_;
};

}  // namespace elatectwn4::com::win
