// SPDX-License-Identifier: Apache-2.0
// Recording and replaying the calls the device logic makes to the platform.
//
// Every platform call that code above platform/ makes passes through a Call: it names the
// call, lists its arguments, then either runs the system's call (and, while a recording is
// being made, writes one line of what was asked and answered) or, in a replay, takes the
// answer from the recording. Only the outermost call of the program's own thread (or of a
// notification callback) counts: what a platform function calls inside itself is its own
// business. The format of a line: docs/recordings.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/cfgmgr.h"
#include "platform/types.h"

namespace platform::rec {

// What an answer field holds, which tells a replay how to read it back.
enum class Kind { kInt, kBytes, kWide, kAllocatedWide, kText, kGuid, kHandle, kObject, kObjects };

// One answer field as a replay gives it back: a number (integers, ids; 0 for none), bytes
// (decoded hex, UTF-8 text, a GUID's text), or the ids of an array of objects.
struct Value {
    std::int64_t number = 0;
    std::string bytes;
    std::vector<std::int64_t> ids;
};

// A COM object as the seam hands it out: the target's recording proxy, which forwards to the
// system's object while recording and answers from the recording in a replay.
struct ObjectFactory {
    // Wraps `inner` (the system's object, held by the proxy; null in a replay) as the
    // interface `iid`, with the id the recording gives it.
    virtual void* Wrap(void* inner, const GUID& iid, std::int64_t id) = 0;
    // The id of a proxy, or -1 when `object` is not one.
    virtual std::int64_t IdOf(const void* object) = 0;

  protected:
    ~ObjectFactory() = default;
};
// The target's proxies.
ObjectFactory& RecordedObjects();

class Call;

// A recording being made, or one being replayed.
class Tap {
  public:
    virtual ~Tap() = default;
    virtual bool Replays() const = 0;
    // Recording: a call of the program's is about to run. What the program wrote before it is
    // written out now: a call may never return (the process killed while it waits).
    virtual void CallStarts() {}
    // Recording: the finished line of one call (without its index and time).
    virtual void Record(const Call& call) = 0;
    // Replay: fills the call's answer from the recording, or ends the process (status 3)
    // naming the call where the program departs from it.
    virtual void Answer(Call& call) = 0;
    // Bytes written to standard output (1) or standard error (2) outside any call.
    virtual void Output(int stream, std::string_view bytes) = 0;
    // Recording: a notification callback about to run (`deliver` runs it); the calls it makes
    // are recorded with it. `arguments` is a JSON object.
    virtual void Event(const std::string& arguments, const std::function<void()>& deliver) = 0;
    // Replay: a notification registration whose recorded callbacks the replay delivers.
    virtual void Registered(std::int64_t id, PVOID context, PCM_NOTIFY_CALLBACK callback) = 0;
};

// The id a handle has in the recording or replay being made: 0 for none, -1 for
// INVALID_HANDLE_VALUE, or (for a value the program did not get from a call) its low 32 bits
// as text in `raw`.
std::int64_t HandleId(const void* handle, std::string* raw);
// A replay's stand-in value for the handle with that id.
void* ReplayHandle(std::int64_t id);

// Whether the calling thread's calls count (the installing thread, and notification callbacks
// while the tap runs them), and marking a thread as running one.
class CallbackThread {
  public:
    CallbackThread();
    ~CallbackThread();
    CallbackThread(const CallbackThread&) = delete;
    CallbackThread& operator=(const CallbackThread&) = delete;
};

// Installs the tap (nullptr: none) for the process; calls on the installing thread, and in
// notification callbacks, are the ones that count.
void InstallTap(std::unique_ptr<Tap> tap);
Tap* CurrentTap();

// Standard output and error pass through here once a tap is installed, so that what the
// program writes is recorded (or, in a replay, compared) in its place among the calls.
void TapStandardStreams();

class Call {
  public:
    explicit Call(const char* name);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    // Whether this call is recorded or replayed; when not, Run only runs the system's call.
    bool Active() const { return tap_ != nullptr; }

    // Arguments, in the order of the signature.
    Call& Int(const char* key, std::int64_t value);
    Call& Bytes(const char* key, const void* data, std::size_t size);
    Call& Wide(const char* key, const wchar_t* text);
    Call& Text(const char* key, std::string_view text);
    Call& Guid(const char* key, const GUID* guid);
    Call& Handle(const char* key, const void* handle);
    Call& Object(const char* key, const void* object);

    // Answers: where the system's call leaves them, and where a replay puts them.
    template <class T>
    Call& OutInt(const char* key, T* where) {
        static_assert(std::is_integral_v<T>);
        return AddOut(key, Kind::kInt, where, sizeof(T), std::is_signed_v<T>, nullptr, 0);
    }
    // `count` (may be null: all of `capacity`) says how many of the bytes were written.
    template <class C = std::uint32_t>
    Call& OutBytes(const char* key, void* buffer, std::size_t capacity, C* count = nullptr) {
        return AddOut(key, Kind::kBytes, buffer, capacity, false, count, sizeof(C));
    }
    Call& OutWideList(const char* key, wchar_t* buffer, std::size_t capacity);
    Call& OutAllocatedWide(const char* key, wchar_t** where, std::uint32_t* length);
    Call& OutText(const char* key, std::string* where);
    Call& OutGuid(const char* key, GUID* where);
    Call& OutHandle(const char* key, void** where);
    Call& OutObject(const char* key, void** where, const GUID& iid);
    // An array of objects (CoTaskMemAlloc), as MFEnumDeviceSources returns them.
    Call& OutObjects(const char* key, void*** where, std::uint32_t* count, const GUID& iid);

    // Runs `system` (recording or not) or answers from the recording. R: an integer, a
    // handle (a pointer) or void.
    template <class F>
    auto Run(F&& system) -> decltype(system()) {
        using R = decltype(system());
        if (tap_ == nullptr) return system();
        if (tap_->Replays()) {
            Replay();
            if constexpr (std::is_void_v<R>) {
                return;
            } else if constexpr (std::is_pointer_v<R>) {
                return static_cast<R>(ResultHandle());
            } else {
                return static_cast<R>(result_);
            }
        } else {
            Enter();
            if constexpr (std::is_void_v<R>) {
                system();
                Leave(kNoResult, nullptr);
            } else if constexpr (std::is_pointer_v<R>) {
                R answer = system();
                Leave(0, const_cast<void*>(static_cast<const void*>(answer)));
                return answer;
            } else {
                R answer = system();
                Leave(static_cast<std::int64_t>(answer), nullptr);
                return answer;
            }
        }
    }

    // For the taps.
    struct Out {
        std::string key;
        Kind kind;
        void* where;
        std::size_t size;  // of the integer, or the capacity of the buffer
        bool isSigned;
        void* count;
        std::size_t countSize;
        GUID iid;
    };
    const std::string& Name() const { return name_; }
    const std::string& Arguments() const { return in_; }     // a JSON object
    const std::string& Answers() const { return outText_; }  // a JSON object
    const std::vector<Out>& Outs() const { return outs_; }
    bool HasResult() const { return hasResult_; }
    std::int64_t Result() const { return result_; }
    std::uint32_t Error() const { return error_; }
    const std::string& Wrote() const { return wrote_; }
    // A checksum of the answer (results, error, output fields, what the call wrote), so that
    // a replay tells an answer altered in the file from one the program reads otherwise.
    std::uint32_t AnswerSum() const;
    // What a replay fills in.
    void SetOut(std::size_t index, const Value& value);
    void SetResult(std::int64_t result) {
        result_ = result;
        hasResult_ = true;
    }
    void SetError(std::uint32_t error) { error_ = error; }
    void SetWrote(std::string wrote) { wrote_ = std::move(wrote); }
    // Bytes the call itself writes to standard output (the console operations).
    void AddWritten(std::string_view bytes) { wrote_.append(bytes); }

  private:
    static constexpr std::int64_t kNoResult = INT64_MIN;
    Call& AddOut(const char* key, Kind kind, void* where, std::size_t size, bool isSigned,
                 void* count, std::size_t countSize, GUID iid = GUID{});
    void Key(const char* key);
    void Enter();
    void Leave(std::int64_t result, void* handle);
    void Replay();
    void* ResultHandle();
    void Mix(const std::string& key, std::string_view value);

    Tap* tap_ = nullptr;
    std::string name_;
    std::string in_;
    std::string outText_;
    std::vector<Out> outs_;
    bool hasResult_ = false;
    std::int64_t result_ = 0;
    std::uint32_t error_ = 0;
    std::string wrote_;
    std::uint32_t sum_ = 2166136261u;  // FNV-1a over the answer fields, in their order
};

// Text helpers the taps share.
std::string Hex(const void* data, std::size_t size);
bool FromHex(std::string_view text, std::string& bytes);
std::string GuidText(const GUID& guid);
bool GuidFromText(std::string_view text, GUID& guid);
void AppendJsonString(std::string& out, std::string_view utf8);
bool IsUtf8(std::string_view bytes);

// A tap that writes the recording through `sink` (one line at a time, each ending in LF),
// starting with the header line.
std::unique_ptr<Tap> MakeRecorder(std::function<void(std::string_view line)> sink,
                                  std::string_view program, std::string_view version,
                                  std::string_view platformName,
                                  const std::vector<std::string>& arguments);
// Writes bytes to standard output or error past the tap (a replayed console operation).
void WriteThrough(int stream, std::string_view bytes);
inline constexpr int kRecordingFormat = 1;

}  // namespace platform::rec
