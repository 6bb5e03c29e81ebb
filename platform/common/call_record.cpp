// SPDX-License-Identifier: Apache-2.0
#include "platform/common/call_record.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <thread>
#include <unordered_map>

#include "platform/com.h"
#include "platform/common/wide_stream.h"

namespace platform::rec {
namespace {

std::atomic<Tap*> installed{nullptr};
std::unique_ptr<Tap> owned;
std::thread::id mainThread;

thread_local int depth = 0;            // calls of the platform inside a counted call
thread_local Call* running = nullptr;  // the counted call this thread is in
thread_local bool inCallback = false;  // a notification callback of the tap's

// Handle ids while recording: in order of creation, shared with the objects' ids.
std::mutex handleLock;
std::unordered_map<const void*, std::int64_t> handleIds;
std::atomic<std::int64_t> nextId{1};

// A replay's handles are values no system hands out, spaced so that none is null or
// INVALID_HANDLE_VALUE.
constexpr std::uintptr_t kReplayHandleBase = 0x7e5f0000;

// What an absent string is summed as (no text is a single NUL).
constexpr std::string_view kNone("\0", 1);

bool ThreadCounts() {
    return inCallback || std::this_thread::get_id() == mainThread;
}

std::int64_t NewId() {
    return nextId.fetch_add(1);
}

std::int64_t NewHandleId(const void* handle) {
    if (handle == nullptr) return 0;
    if (handle == INVALID_HANDLE_VALUE) return -1;
    const std::int64_t id = NewId();
    std::lock_guard lock(handleLock);
    handleIds[handle] = id;
    return id;
}

template <class T>
void Store(void* where, std::int64_t value) {
    T narrowed = static_cast<T>(value);
    std::memcpy(where, &narrowed, sizeof narrowed);
}

void StoreInt(void* where, std::size_t size, std::int64_t value) {
    switch (size) {
        case 1:
            Store<std::uint8_t>(where, value);
            break;
        case 2:
            Store<std::uint16_t>(where, value);
            break;
        case 4:
            Store<std::uint32_t>(where, value);
            break;
        default:
            Store<std::uint64_t>(where, value);
            break;
    }
}

std::int64_t LoadInt(const void* where, std::size_t size, bool isSigned) {
    switch (size) {
        case 1: {
            std::uint8_t v;
            std::memcpy(&v, where, 1);
            return isSigned ? static_cast<std::int8_t>(v) : v;
        }
        case 2: {
            std::uint16_t v;
            std::memcpy(&v, where, 2);
            return isSigned ? static_cast<std::int16_t>(v) : v;
        }
        case 4: {
            std::uint32_t v;
            std::memcpy(&v, where, 4);
            return isSigned ? static_cast<std::int32_t>(v) : static_cast<std::int64_t>(v);
        }
        default: {
            std::int64_t v;
            std::memcpy(&v, where, 8);
            return v;
        }
    }
}

// The UTF-8 text of `count` wide units, which may hold NULs.
std::string WideUnits(const wchar_t* text, std::size_t count) {
    return WideToUtf8(std::wstring_view(text, count));
}

// The length of a list of strings that ends in an empty one, terminators included, within
// `capacity` units.
std::size_t WideListLength(const wchar_t* buffer, std::size_t capacity) {
    for (std::size_t i = 0; i < capacity; ++i) {
        if (buffer[i] == L'\0' && (i == 0 || buffer[i - 1] == L'\0')) return i + 1;
    }
    return capacity;
}

void AppendText(std::string& out, std::string_view bytes) {
    if (IsUtf8(bytes)) {
        AppendJsonString(out, bytes);
    } else {
        out += "{\"hex\":\"" + Hex(bytes.data(), bytes.size()) + "\"}";
    }
}

// Standard output or error, passed through to the stream's own buffer once the tap has seen
// it.
class TapBuffer final : public std::streambuf {
  public:
    TapBuffer(std::streambuf* inner, int stream) : inner_(inner), stream_(stream) {}
    void Through(std::string_view bytes) {
        inner_->sputn(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

  protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        const char byte = traits_type::to_char_type(ch);
        Pass(std::string_view(&byte, 1));
        return ch;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        Pass(std::string_view(text, static_cast<std::size_t>(count)));
        return count;
    }
    int sync() override { return inner_->pubsync(); }

  private:
    void Pass(std::string_view bytes) {
        Tap* tap = installed.load();
        if (tap != nullptr && ThreadCounts()) {
            if (running != nullptr && stream_ == 1) {
                running->AddWritten(bytes);
            } else if (running == nullptr) {
                tap->Output(stream_, bytes);
            }
        }
        Through(bytes);
    }

    std::streambuf* inner_;
    int stream_;
};

TapBuffer* tappedOut = nullptr;
TapBuffer* tappedErr = nullptr;

// Writes a recording's lines: the calls of the program's thread in order, each callback with
// the calls it made, and what the program wrote between them.
class Recorder final : public Tap {
  public:
    explicit Recorder(std::function<void(std::string_view)> sink)
        : sink_(std::move(sink)), start_(std::chrono::steady_clock::now()) {}
    ~Recorder() override {
        std::lock_guard lock(lock_);
        FlushOutput();
    }

    bool Replays() const override { return false; }

    void Record(const Call& call) override {
        std::string line = "{";
        if (callback_ == nullptr) line += "\"n\":" + std::to_string(calls_.load()) + ",";
        line += "\"t\":" + std::to_string(Elapsed()) + ",\"call\":";
        AppendJsonString(line, call.Name());
        line += ",\"in\":" + call.Arguments();
        if (call.HasResult()) line += ",\"ret\":" + std::to_string(call.Result());
        line += ",\"err\":" + std::to_string(call.Error());
        line += ",\"out\":" + call.Answers();
        if (!call.Wrote().empty()) {
            line += ",\"wrote\":";
            AppendText(line, call.Wrote());
        }
        char sum[16];
        std::snprintf(sum, sizeof sum, "%08x", static_cast<unsigned>(call.AnswerSum()));
        line += ",\"sum\":\"" + std::string(sum) + "\"}";
        if (Pending* event = callback_) {
            event->calls += (event->calls.empty() ? "" : ",") + line;
            return;
        }
        std::lock_guard lock(lock_);
        FlushOutput();
        Write(line);
        ++calls_;
    }

    void CallStarts() override {
        if (callback_ != nullptr) return;
        std::lock_guard lock(lock_);
        FlushOutput();
    }

    void Answer(Call&) override {}

    void Output(int stream, std::string_view bytes) override {
        std::lock_guard lock(lock_);
        if (stream != pendingStream_) FlushOutput();
        pendingStream_ = stream;
        pending_.append(bytes);
    }

    void Event(const std::string& arguments, const std::function<void()>& deliver) override {
        Pending event;
        event.before = calls_.load();
        event.t = Elapsed();
        callback_ = &event;
        deliver();
        callback_ = nullptr;
        std::string line =
            "{\"t\":" + std::to_string(event.t) +
            ",\"event\":\"notification\",\"before\":" + std::to_string(event.before) +
            ",\"in\":" + arguments + ",\"calls\":[" + event.calls + "]}";
        std::lock_guard lock(lock_);
        Write(line);
    }

    void Registered(std::int64_t, PVOID, PCM_NOTIFY_CALLBACK) override {}

    void Header(const std::string& line) {
        std::lock_guard lock(lock_);
        Write(line);
    }

  private:
    struct Pending {
        std::int64_t before = 0;
        std::int64_t t = 0;
        std::string calls;
    };

    std::int64_t Elapsed() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::steady_clock::now() - start_)
            .count();
    }
    void Write(std::string line) {
        line += "\n";
        sink_(line);
    }
    void FlushOutput() {
        if (pending_.empty()) return;
        std::string line = "{\"t\":" + std::to_string(Elapsed()) + ",\"" +
                           (pendingStream_ == 2 ? "stderr" : "stdout") + "\":";
        AppendText(line, pending_);
        pending_.clear();
        Write(line + "}");
    }

    std::function<void(std::string_view)> sink_;
    std::chrono::steady_clock::time_point start_;
    std::mutex lock_;
    std::atomic<std::int64_t> calls_{0};
    std::string pending_;
    int pendingStream_ = 1;
    static thread_local Pending* callback_;
};

thread_local Recorder::Pending* Recorder::callback_ = nullptr;

}  // namespace

void InstallTap(std::unique_ptr<Tap> tap) {
    installed.store(nullptr);
    mainThread = std::this_thread::get_id();
    owned = std::move(tap);
    installed.store(owned.get());
    static const bool atExit = std::atexit([] { InstallTap(nullptr); }) == 0;
    (void)atExit;
}

Tap* CurrentTap() {
    return installed.load();
}

void TapStandardStreams() {
    if (tappedOut != nullptr) return;
    tappedOut = new TapBuffer(std::cout.rdbuf(), 1);
    tappedErr = new TapBuffer(std::cerr.rdbuf(), 2);
    std::cout.rdbuf(tappedOut);
    std::cerr.rdbuf(tappedErr);
}

void WriteThrough(int stream, std::string_view bytes) {
    TapBuffer* buffer = stream == 2 ? tappedErr : tappedOut;
    if (buffer != nullptr) {
        buffer->Through(bytes);
    } else {
        (stream == 2 ? std::cerr : std::cout)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
}

std::int64_t HandleId(const void* handle, std::string* raw) {
    if (handle == nullptr) return 0;
    if (handle == INVALID_HANDLE_VALUE) return -1;
    Tap* tap = installed.load();
    if (tap != nullptr && tap->Replays()) {
        const auto value = reinterpret_cast<std::uintptr_t>(handle);
        if (value > kReplayHandleBase && (value - kReplayHandleBase) % 16 == 0)
            return static_cast<std::int64_t>((value - kReplayHandleBase) / 16);
    } else {
        std::lock_guard lock(handleLock);
        if (auto found = handleIds.find(handle); found != handleIds.end()) return found->second;
    }
    if (raw != nullptr) {
        char text[16];
        std::snprintf(
            text, sizeof text, "0x%08x",
            static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(handle) & 0xFFFFFFFFu));
        *raw = text;
    }
    return -2;
}

void* ReplayHandle(std::int64_t id) {
    if (id == 0) return nullptr;
    if (id < 0) return INVALID_HANDLE_VALUE;
    return reinterpret_cast<void*>(kReplayHandleBase + static_cast<std::uintptr_t>(id) * 16);
}

CallbackThread::CallbackThread() {
    inCallback = true;
}
CallbackThread::~CallbackThread() {
    inCallback = false;
}

Call::Call(const char* name) : name_(name) {
    Tap* tap = installed.load();
    if (tap == nullptr || depth > 0 || !ThreadCounts()) return;
    tap_ = tap;
}

Call::~Call() = default;

void Call::Key(const char* key) {
    if (!in_.empty()) in_ += ",";
    AppendJsonString(in_, key);
    in_ += ":";
}

Call& Call::Int(const char* key, std::int64_t value) {
    if (!tap_) return *this;
    Key(key);
    in_ += std::to_string(value);
    return *this;
}

Call& Call::Bytes(const char* key, const void* data, std::size_t size) {
    if (!tap_) return *this;
    Key(key);
    in_ += "\"" + Hex(data, data ? size : 0) + "\"";
    return *this;
}

Call& Call::Wide(const char* key, const wchar_t* text) {
    if (!tap_) return *this;
    Key(key);
    if (text == nullptr) {
        in_ += "null";
    } else {
        AppendJsonString(in_, WideToUtf8(text));
    }
    return *this;
}

Call& Call::Text(const char* key, std::string_view text) {
    if (!tap_) return *this;
    Key(key);
    AppendText(in_, text);
    return *this;
}

Call& Call::Guid(const char* key, const GUID* guid) {
    if (!tap_) return *this;
    Key(key);
    if (guid == nullptr) {
        in_ += "null";
    } else {
        in_ += "\"" + GuidText(*guid) + "\"";
    }
    return *this;
}

Call& Call::Handle(const char* key, const void* handle) {
    if (!tap_) return *this;
    Key(key);
    std::string raw;
    const std::int64_t id = HandleId(handle, &raw);
    if (id == -2) {
        AppendJsonString(in_, raw);
    } else {
        in_ += std::to_string(id);
    }
    return *this;
}

Call& Call::Object(const char* key, const void* object) {
    if (!tap_) return *this;
    Key(key);
    std::int64_t id = 0;
    if (object != nullptr) id = RecordedObjects().IdOf(object);
    in_ += std::to_string(id);
    return *this;
}

Call& Call::AddOut(const char* key, Kind kind, void* where, std::size_t size, bool isSigned,
                   void* count, std::size_t countSize, GUID iid) {
    if (tap_) outs_.push_back(Out{key, kind, where, size, isSigned, count, countSize, iid});
    return *this;
}

Call& Call::OutWideList(const char* key, wchar_t* buffer, std::size_t capacity) {
    return AddOut(key, Kind::kWide, buffer, capacity, false, nullptr, 0);
}
Call& Call::OutAllocatedWide(const char* key, wchar_t** where, std::uint32_t* length) {
    return AddOut(key, Kind::kAllocatedWide, static_cast<void*>(where), 0, false, length,
                  sizeof(std::uint32_t));
}
Call& Call::OutText(const char* key, std::string* where) {
    return AddOut(key, Kind::kText, where, 0, false, nullptr, 0);
}
Call& Call::OutGuid(const char* key, GUID* where) {
    return AddOut(key, Kind::kGuid, where, sizeof(GUID), false, nullptr, 0);
}
Call& Call::OutHandle(const char* key, void** where) {
    return AddOut(key, Kind::kHandle, static_cast<void*>(where), sizeof(void*), false, nullptr, 0);
}
Call& Call::OutObject(const char* key, void** where, const GUID& iid) {
    return AddOut(key, Kind::kObject, static_cast<void*>(where), sizeof(void*), false, nullptr, 0,
                  iid);
}
Call& Call::OutObjects(const char* key, void*** where, std::uint32_t* count, const GUID& iid) {
    return AddOut(key, Kind::kObjects, static_cast<void*>(where), sizeof(void*), false, count,
                  sizeof(std::uint32_t), iid);
}

void Call::Enter() {
    tap_->CallStarts();
    ++depth;
    running = this;
}

void Call::Leave(std::int64_t result, void* handle) {
    error_ = static_cast<std::uint32_t>(GetLastError());
    --depth;
    running = nullptr;
    hasResult_ = result != kNoResult;
    if (hasResult_) result_ = handle != nullptr ? NewHandleId(handle) : result;
    std::string text;
    for (const Out& out : outs_) {
        if (out.where == nullptr) continue;
        if (!text.empty()) text += ",";
        AppendJsonString(text, out.key);
        text += ":";
        switch (out.kind) {
            case Kind::kInt: {
                const std::string value =
                    std::to_string(LoadInt(out.where, out.size, out.isSigned));
                Mix(out.key, value);
                text += value;
                break;
            }
            case Kind::kBytes: {
                std::size_t size = out.size;
                if (out.count != nullptr) {
                    size = std::min<std::size_t>(
                        size, static_cast<std::size_t>(LoadInt(out.count, out.countSize, false)));
                }
                Mix(out.key, std::string_view(static_cast<const char*>(out.where), size));
                text += "\"" + Hex(out.where, size) + "\"";
                break;
            }
            case Kind::kWide: {
                const auto* buffer = static_cast<const wchar_t*>(out.where);
                const std::string value = WideUnits(buffer, WideListLength(buffer, out.size));
                Mix(out.key, value);
                AppendJsonString(text, value);
                break;
            }
            case Kind::kAllocatedWide: {
                const wchar_t* value = *static_cast<wchar_t* const*>(out.where);
                if (value == nullptr) {
                    Mix(out.key, kNone);
                    text += "null";
                } else {
                    Mix(out.key, WideToUtf8(value));
                    AppendJsonString(text, WideToUtf8(value));
                }
                break;
            }
            case Kind::kText: {
                const auto& value = *static_cast<const std::string*>(out.where);
                Mix(out.key, value);
                AppendText(text, value);
                break;
            }
            case Kind::kGuid: {
                const std::string value = GuidText(*static_cast<const GUID*>(out.where));
                Mix(out.key, value);
                text += "\"" + value + "\"";
                break;
            }
            case Kind::kHandle: {
                const std::string value =
                    std::to_string(NewHandleId(*static_cast<void* const*>(out.where)));
                Mix(out.key, value);
                text += value;
                break;
            }
            case Kind::kObject: {
                void*& object = *static_cast<void**>(out.where);
                std::int64_t id = 0;
                if (object != nullptr) {
                    id = NewId();
                    object = RecordedObjects().Wrap(object, out.iid, id);
                }
                Mix(out.key, std::to_string(id));
                text += std::to_string(id);
                break;
            }
            case Kind::kObjects: {
                void** array = *static_cast<void***>(out.where);
                const auto count =
                    array ? static_cast<std::size_t>(LoadInt(out.count, out.countSize, false)) : 0;
                text += "[";
                for (std::size_t i = 0; i < count; ++i) {
                    std::int64_t id = 0;
                    if (array[i] != nullptr) {
                        id = NewId();
                        array[i] = RecordedObjects().Wrap(array[i], out.iid, id);
                    }
                    text += (i ? "," : "") + std::to_string(id);
                }
                text += "]";
                Mix(out.key, text.substr(text.rfind('[')));
                break;
            }
        }
    }
    outText_ = "{" + text + "}";
    in_ = "{" + in_ + "}";
    tap_->Record(*this);
    SetLastError(error_);
}

void Call::Replay() {
    in_ = "{" + in_ + "}";
    tap_->Answer(*this);
    if (!wrote_.empty()) WriteThrough(1, wrote_);
    SetLastError(error_);
}

namespace {
// The key and the value's length go in too, so that bytes cannot move between fields.
void MixInto(std::uint32_t& sum, const std::string& key, std::string_view value) {
    const std::string head = key + "=" + std::to_string(value.size()) + ":";
    for (std::string_view part : {std::string_view(head), value}) {
        for (const char c : part) {
            sum ^= static_cast<std::uint8_t>(c);
            sum *= 16777619u;
        }
    }
}
}  // namespace

void Call::Mix(const std::string& key, std::string_view value) {
    MixInto(sum_, key, value);
}

std::uint32_t Call::AnswerSum() const {
    std::uint32_t sum = sum_;
    if (hasResult_) MixInto(sum, "ret", std::to_string(result_));
    MixInto(sum, "err", std::to_string(error_));
    MixInto(sum, "wrote", wrote_);
    return sum;
}

void* Call::ResultHandle() {
    return ReplayHandle(result_);
}

void Call::SetOut(std::size_t index, const Value& value) {
    const Out& out = outs_.at(index);
    if (out.where == nullptr) return;
    switch (out.kind) {
        case Kind::kInt:
        case Kind::kHandle:
        case Kind::kObject:
            Mix(out.key, std::to_string(value.number));
            break;
        case Kind::kAllocatedWide:
            Mix(out.key, value.number == -1 ? kNone : value.bytes);
            break;
        case Kind::kObjects: {
            std::string ids = "[";
            for (std::size_t i = 0; i < value.ids.size(); ++i)
                ids += (i ? "," : "") + std::to_string(value.ids[i]);
            Mix(out.key, ids + "]");
            break;
        }
        default:
            Mix(out.key, value.bytes);
            break;
    }
    switch (out.kind) {
        case Kind::kInt:
            StoreInt(out.where, out.size, value.number);
            break;
        case Kind::kBytes: {
            const std::size_t size = std::min(out.size, value.bytes.size());
            std::memcpy(out.where, value.bytes.data(), size);
            if (out.count != nullptr)
                StoreInt(out.count, out.countSize, static_cast<std::int64_t>(size));
            break;
        }
        case Kind::kWide: {
            const std::wstring text = Utf8ToWide(value.bytes);
            std::wmemcpy(static_cast<wchar_t*>(out.where), text.data(),
                         std::min(out.size, text.size()));
            break;
        }
        case Kind::kAllocatedWide: {
            auto*& where = *static_cast<wchar_t**>(out.where);
            where = nullptr;
            if (value.number == 0) {
                const std::wstring text = Utf8ToWide(value.bytes);
                where = static_cast<wchar_t*>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
                if (where != nullptr) std::wmemcpy(where, text.c_str(), text.size() + 1);
                if (out.count != nullptr)
                    StoreInt(out.count, out.countSize, static_cast<std::int64_t>(text.size()));
            }
            break;
        }
        case Kind::kText:
            *static_cast<std::string*>(out.where) = value.bytes;
            break;
        case Kind::kGuid:
            GuidFromText(value.bytes, *static_cast<GUID*>(out.where));
            break;
        case Kind::kHandle:
            *static_cast<void**>(out.where) = ReplayHandle(value.number);
            break;
        case Kind::kObject:
            *static_cast<void**>(out.where) =
                value.number > 0 ? RecordedObjects().Wrap(nullptr, out.iid, value.number) : nullptr;
            break;
        case Kind::kObjects: {
            void**& array = *static_cast<void***>(out.where);
            array = nullptr;
            StoreInt(out.count, out.countSize, 0);
            if (value.ids.empty()) break;
            array = static_cast<void**>(CoTaskMemAlloc(value.ids.size() * sizeof(void*)));
            if (array == nullptr) break;
            for (std::size_t i = 0; i < value.ids.size(); ++i) {
                array[i] = value.ids[i] > 0 ? RecordedObjects().Wrap(nullptr, out.iid, value.ids[i])
                                            : nullptr;
            }
            StoreInt(out.count, out.countSize, static_cast<std::int64_t>(value.ids.size()));
            break;
        }
    }
}

std::string Hex(const void* data, std::size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(size * 2);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

bool FromHex(std::string_view text, std::string& bytes) {
    if (text.size() % 2 != 0) return false;
    bytes.clear();
    auto digit = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0) return false;
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

std::string GuidText(const GUID& guid) {
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0],
                  guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    return text;
}

bool GuidFromText(std::string_view text, GUID& guid) {
    std::string bytes;
    std::string digits;
    for (char c : text) {
        if (c != '-') digits += c;
    }
    if (digits.size() != 32 || !FromHex(digits, bytes)) return false;
    const auto* b = reinterpret_cast<const std::uint8_t*>(bytes.data());
    guid.Data1 = static_cast<decltype(guid.Data1)>((std::uint32_t{b[0]} << 24) | (b[1] << 16) |
                                                   (b[2] << 8) | b[3]);
    guid.Data2 = static_cast<decltype(guid.Data2)>((b[4] << 8) | b[5]);
    guid.Data3 = static_cast<decltype(guid.Data3)>((b[6] << 8) | b[7]);
    std::memcpy(guid.Data4, b + 8, 8);
    return true;
}

void AppendJsonString(std::string& out, std::string_view utf8) {
    out += '"';
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", byte);
            out += escape;
        } else {
            out += c;
        }
    }
    out += '"';
}

// An ill-formed sequence comes back from the round trip as U+FFFD, so it differs.
bool IsUtf8(std::string_view bytes) {
    return WideToUtf8(Utf8ToWide(bytes)) == bytes;
}

std::unique_ptr<Tap> MakeRecorder(std::function<void(std::string_view line)> sink,
                                  std::string_view program, std::string_view version,
                                  std::string_view platformName,
                                  const std::vector<std::string>& arguments) {
    auto recorder = std::make_unique<Recorder>(std::move(sink));
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
#ifdef _WIN32
    gmtime_s(&utc, &now);
#else
    gmtime_r(&now, &utc);
#endif
    char start[32];
    std::strftime(start, sizeof start, "%Y-%m-%dT%H:%M:%SZ", &utc);
    std::string line = "{\"format\":" + std::to_string(kRecordingFormat) + ",\"program\":";
    AppendJsonString(line, program);
    line += ",\"version\":";
    AppendJsonString(line, version);
    line += ",\"platform\":";
    AppendJsonString(line, platformName);
    line += ",\"start\":\"" + std::string(start) + "\",\"arguments\":[";
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (i) line += ",";
        AppendText(line, arguments[i]);
    }
    line += "]}";
    recorder->Header(line);
    return recorder;
}

}  // namespace platform::rec
