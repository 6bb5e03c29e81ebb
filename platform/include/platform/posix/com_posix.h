// SPDX-License-Identifier: Apache-2.0
// The COM subset the device logic uses, for targets without COM.
#pragma once

#include <cstddef>
#include <utility>

#include "platform/posix/win_types.h"

struct IUnknown {
    virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) = 0;
    virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE Release() = 0;

  protected:
    ~IUnknown() = default;
};

inline constexpr IID IID_IUnknown = {
    0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

constexpr DWORD COINIT_MULTITHREADED = 0;

HRESULT CoInitializeEx(void* reserved, DWORD coInit);
void* CoTaskMemAlloc(std::size_t size);
void CoTaskMemFree(void* memory);

namespace Microsoft::WRL {

// Same contract as the Windows SDK's ComPtr for the operations this program uses.
template <class T>
class ComPtr {
  public:
    ComPtr() noexcept = default;
    ComPtr(std::nullptr_t) noexcept {}
    ComPtr(T* p) noexcept : ptr_(p) { InternalAddRef(); }
    ComPtr(const ComPtr& other) noexcept : ptr_(other.ptr_) { InternalAddRef(); }
    ComPtr(ComPtr&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
    template <class U>
    ComPtr(const ComPtr<U>& other) noexcept : ptr_(other.Get()) {
        InternalAddRef();
    }
    ~ComPtr() { InternalRelease(); }

    ComPtr& operator=(const ComPtr& other) noexcept {
        if (this != &other) ComPtr(other).Swap(*this);
        return *this;
    }
    ComPtr& operator=(ComPtr&& other) noexcept {
        ComPtr(std::move(other)).Swap(*this);
        return *this;
    }
    ComPtr& operator=(T* p) noexcept {
        if (ptr_ != p) ComPtr(p).Swap(*this);
        return *this;
    }
    ComPtr& operator=(std::nullptr_t) noexcept {
        InternalRelease();
        return *this;
    }

    T* Get() const noexcept { return ptr_; }
    T* operator->() const noexcept { return ptr_; }
    explicit operator bool() const noexcept { return ptr_ != nullptr; }
    T* const* GetAddressOf() const noexcept { return &ptr_; }
    T** GetAddressOf() noexcept { return &ptr_; }
    T** ReleaseAndGetAddressOf() noexcept {
        InternalRelease();
        return &ptr_;
    }
    void Attach(T* p) noexcept {
        InternalRelease();
        ptr_ = p;
    }
    T* Detach() noexcept { return std::exchange(ptr_, nullptr); }
    unsigned long Reset() noexcept { return InternalRelease(); }
    void Swap(ComPtr& other) noexcept { std::swap(ptr_, other.ptr_); }

  private:
    void InternalAddRef() const noexcept {
        if (ptr_) ptr_->AddRef();
    }
    unsigned long InternalRelease() noexcept {
        unsigned long count = 0;
        if (T* p = std::exchange(ptr_, nullptr)) count = p->Release();
        return count;
    }

    T* ptr_ = nullptr;
};

template <class T, class U>
bool operator==(const ComPtr<T>& a, const ComPtr<U>& b) noexcept {
    return static_cast<const void*>(a.Get()) == static_cast<const void*>(b.Get());
}
template <class T>
bool operator==(const ComPtr<T>& a, std::nullptr_t) noexcept {
    return a.Get() == nullptr;
}

}  // namespace Microsoft::WRL
