// SPDX-License-Identifier: Apache-2.0
// An extension unit's control that is not reference counted (it lives on the caller's stack)
// and answers nothing but property requests, which each fake gives its own answer to.
#pragma once

#include "platform/ks.h"

namespace fakes {

class KsControlStub : public IKsControl {
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE KsMethod(PKSMETHOD, ULONG, LPVOID, ULONG, ULONG*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE KsEvent(PKSEVENT, ULONG, LPVOID, ULONG, ULONG*) override {
        return E_NOTIMPL;
    }
};

}  // namespace fakes
