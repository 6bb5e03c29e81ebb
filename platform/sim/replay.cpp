// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/replay.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "platform/common/wide_stream.h"

namespace sim {
namespace {

using nlohmann::json;
namespace rec = platform::rec;

class Replayer;
Replayer* active = nullptr;

// The calls a notification callback made while it was recorded, served on its thread.
thread_local const json* eventCalls = nullptr;
thread_local std::size_t eventNext = 0;

[[noreturn]] void Depart(const std::string& what) {
    std::cout.flush();
    rec::WriteThrough(2, "lynx-dfu-lab: the replay departs from the recording " + what + "\n");
    std::cerr.flush();
    std::_Exit(3);
}

std::string Describe(const std::string& name, const json& in) {
    return name + " " + in.dump();
}

std::string Shown(const std::string& bytes) {
    return json(platform::WideToUtf8(platform::Utf8ToWide(bytes))).dump();
}

// A text or {"hex": ...} field of a recording.
bool TextOf(const json& value, std::string& bytes) {
    if (value.is_string()) {
        bytes = value.get<std::string>();
        return true;
    }
    return value.is_object() && value.contains("hex") && value["hex"].is_string() &&
           rec::FromHex(value["hex"].get<std::string>(), bytes);
}

class Replayer final : public rec::Tap {
  public:
    bool Replays() const override { return true; }
    void Record(const rec::Call&) override {}

    void Answer(rec::Call& call) override {
        std::lock_guard lock(lock_);
        const json asked = json::parse(call.Arguments());
        const json* record = nullptr;
        std::string where;
        if (eventCalls != nullptr) {
            where = "in a notification callback before call " + std::to_string(next_);
            if (eventNext < eventCalls->size()) record = &(*eventCalls)[eventNext++];
        } else {
            Deliver();
            where = "at call " + std::to_string(next_);
            CheckOutput(where);
            if (next_ < calls_.size()) record = &calls_[next_];
            where += Context();
        }
        if (record == nullptr) {
            Depart(where + ": the recording ends; asked " + Describe(call.Name(), asked));
        }
        const std::string recordedName = (*record)["call"].get<std::string>();
        if (recordedName != call.Name() || (*record)["in"] != asked) {
            Depart(where + ": recorded " + Describe(recordedName, (*record)["in"]) + ", asked " +
                   Describe(call.Name(), asked));
        }
        Fill(call, *record, where);
        if (eventCalls == nullptr) {
            last_ = Describe(recordedName, asked);
            ++next_;
        }
    }

    void Output(int stream, std::string_view bytes) override {
        std::lock_guard lock(lock_);
        Stream& s = streams_[stream == 2 ? 1 : 0];
        if (s.expected.compare(s.written, bytes.size(), bytes) != 0) {
            const std::string recorded = s.expected.substr(s.written, bytes.size());
            Depart("in what the program writes to " +
                   std::string(stream == 2 ? "stderr" : "stdout") + " before call " +
                   std::to_string(next_) + Context() + ": recorded " + Shown(recorded) +
                   ", written " + Shown(std::string(bytes)));
        }
        s.written += bytes.size();
    }

    void Event(const std::string&, const std::function<void()>& deliver) override { deliver(); }

    void Registered(std::int64_t id, PVOID context, PCM_NOTIFY_CALLBACK callback) override {
        registrations_[id] = {context, callback};
    }

    void Finish() {
        std::lock_guard lock(lock_);
        const std::string where = "where the program ends, before call " + std::to_string(next_);
        CheckOutput(where);
        if (next_ < calls_.size()) {
            Depart(where + Context() + ": recorded " +
                   Describe(calls_[next_]["call"].get<std::string>(), calls_[next_]["in"]));
        }
    }

    void Load(std::istream& file, RecordingHeader& header) {
        std::string line;
        std::size_t number = 0;
        while (std::getline(file, line)) {
            ++number;
            const bool lastCutShort = file.eof();
            json record = json::parse(line, nullptr, false);
            if (record.is_discarded() || !record.is_object()) {
                // A recording whose program was ended mid-line: what came before still holds.
                if (lastCutShort && number > 1) break;
                throw ReplayError("line " + std::to_string(number) + ": not a JSON object");
            }
            if (number == 1) {
                ReadHeader(record, header);
                continue;
            }
            Take(record, number);
        }
        if (number == 0) throw ReplayError("empty");
    }

  private:
    struct Stream {
        std::string expected;
        std::size_t written = 0;
    };
    struct Registration {
        PVOID context = nullptr;
        PCM_NOTIFY_CALLBACK callback = nullptr;
    };

    static void ReadHeader(const json& record, RecordingHeader& header) {
        if (!record.contains("format") || !record["format"].is_number_integer())
            throw ReplayError("line 1: not a recording's header");
        if (record["format"].get<std::int64_t>() != rec::kRecordingFormat) {
            throw ReplayError("line 1: unknown recording format " + record["format"].dump() +
                              " (this lab replays format " + std::to_string(rec::kRecordingFormat) +
                              ")");
        }
        try {
            header.program = record.at("program").get<std::string>();
            header.version = record.value("version", "");
            header.platform = record.value("platform", "");
            for (const json& argument : record.value("arguments", json::array())) {
                std::string bytes;
                if (!TextOf(argument, bytes)) throw ReplayError("line 1: a bad argument");
                header.arguments.push_back(bytes);
            }
        } catch (const json::exception&) {
            throw ReplayError("line 1: the header lacks the program");
        }
    }

    void Take(json& record, std::size_t number) {
        const std::string at = "line " + std::to_string(number) + ": ";
        if (record.contains("call")) {
            if (!record["call"].is_string() || !record.contains("in") || !record["in"].is_object())
                throw ReplayError(at + "a call without its name or arguments");
            calls_.push_back(std::move(record));
            outputBefore_.push_back({streams_[0].expected.size(), streams_[1].expected.size()});
        } else if (record.contains("event")) {
            if (!record.contains("before") || !record["before"].is_number_unsigned() ||
                !record.contains("calls") || !record["calls"].is_array() ||
                !record.contains("in") || !record["in"].is_object())
                throw ReplayError(at + "an event without its place, arguments or calls");
            for (const json& call : record["calls"]) {
                if (!call.is_object() || !call.contains("call") || !call.contains("in"))
                    throw ReplayError(at + "an event's call without its name or arguments");
            }
            const auto before = record["before"].get<std::size_t>();
            events_[before].push_back(std::move(record));
        } else if (record.contains("stdout") || record.contains("stderr")) {
            const bool err = record.contains("stderr");
            std::string bytes;
            if (!TextOf(record[err ? "stderr" : "stdout"], bytes))
                throw ReplayError(at + "output that is neither text nor hex");
            streams_[err ? 1 : 0].expected += bytes;
        } else {
            throw ReplayError(at + "neither a call, an event nor output");
        }
    }

    std::string Context() const { return last_.empty() ? "" : " (after " + last_ + ")"; }

    // Everything recorded before call next_ must have been written.
    void CheckOutput(const std::string& where) {
        const auto expected = next_ < outputBefore_.size() ? outputBefore_[next_]
                                                           : std::pair{streams_[0].expected.size(),
                                                                       streams_[1].expected.size()};
        const std::size_t want[2] = {expected.first, expected.second};
        for (int i = 0; i < 2; ++i) {
            if (streams_[i].written < want[i]) {
                Depart(where + Context() + ": the program has not written " +
                       Shown(streams_[i].expected.substr(streams_[i].written,
                                                         want[i] - streams_[i].written)) +
                       " to " + (i ? "stderr" : "stdout"));
            }
        }
    }

    // The callbacks recorded before call next_, each on a thread of its own, as the system
    // delivers them.
    void Deliver() {
        auto found = events_.find(next_);
        if (found == events_.end()) return;
        std::vector<json> events = std::move(found->second);
        events_.erase(found);
        for (const json& event : events) {
            const json& in = event["in"];
            const std::int64_t id = in.value("notification", std::int64_t{0});
            auto registration = registrations_.find(id);
            if (registration == registrations_.end()) {
                Depart("at call " + std::to_string(next_) + Context() +
                       ": a notification was recorded for registration " + std::to_string(id) +
                       ", which the program has not made");
            }
            const std::wstring link = platform::Utf8ToWide(in.value("link", std::string()));
            const std::size_t size = sizeof(CM_NOTIFY_EVENT_DATA) + link.size() * sizeof(WCHAR);
            std::vector<std::uint8_t> storage(size, 0);
            auto* data = reinterpret_cast<CM_NOTIFY_EVENT_DATA*>(storage.data());
            data->FilterType = static_cast<CM_NOTIFY_FILTER_TYPE>(in.value("filterType", 0));
            rec::GuidFromText(in.value("class", std::string()), data->u.DeviceInterface.ClassGuid);
            std::wmemcpy(data->u.DeviceInterface.SymbolicLink, link.c_str(), link.size() + 1);
            const auto action = static_cast<CM_NOTIFY_ACTION>(in.value("action", 0));
            const Registration target = registration->second;
            lock_.unlock();
            std::thread delivery([&] {
                rec::CallbackThread counted;
                eventCalls = &event["calls"];
                eventNext = 0;
                target.callback(static_cast<HCMNOTIFICATION>(rec::ReplayHandle(id)), target.context,
                                action, data, static_cast<DWORD>(size));
                if (eventNext < eventCalls->size()) {
                    const json& missing = (*eventCalls)[eventNext];
                    Depart("in a notification callback before call " + std::to_string(next_) +
                           ": recorded " +
                           Describe(missing["call"].get<std::string>(), missing["in"]) +
                           ", which the callback did not make");
                }
            });
            delivery.join();
            lock_.lock();
        }
    }

    void Fill(rec::Call& call, const json& record, const std::string& where) {
        const json out = record.value("out", json::object());
        const auto& outs = call.Outs();
        for (std::size_t i = 0; i < outs.size(); ++i) {
            if (outs[i].where == nullptr || !out.contains(outs[i].key)) continue;
            const json& field = out[outs[i].key];
            rec::Value value;
            bool good = true;
            switch (outs[i].kind) {
                case rec::Kind::kInt:
                case rec::Kind::kHandle:
                case rec::Kind::kObject:
                    good = field.is_number_integer();
                    if (good) value.number = field.get<std::int64_t>();
                    break;
                case rec::Kind::kBytes:
                    good = field.is_string() &&
                           rec::FromHex(field.get<std::string>(), value.bytes) &&
                           value.bytes.size() <= outs[i].size;
                    break;
                case rec::Kind::kAllocatedWide:
                    if (field.is_null()) {
                        value.number = -1;
                        break;
                    }
                    [[fallthrough]];
                case rec::Kind::kWide:
                case rec::Kind::kGuid:
                case rec::Kind::kText:
                    good = TextOf(field, value.bytes);
                    break;
                case rec::Kind::kObjects:
                    good = field.is_array();
                    for (const json& id : good ? field : json::array()) {
                        if (!id.is_number_integer()) good = false;
                        if (good) value.ids.push_back(id.get<std::int64_t>());
                    }
                    break;
            }
            if (!good) {
                Depart(where + ": the recorded answer " + outs[i].key + " of " + call.Name() +
                       " does not fit what the program asked");
            }
            call.SetOut(i, value);
        }
        if (record.contains("ret")) call.SetResult(record["ret"].get<std::int64_t>());
        call.SetError(record.value("err", std::uint32_t{0}));
        std::string wrote;
        if (record.contains("wrote") && TextOf(record["wrote"], wrote)) call.SetWrote(wrote);
        // A recording made by hand may leave the sum out; one the recorder wrote has it.
        if (record.contains("sum")) {
            char sum[16];
            std::snprintf(sum, sizeof sum, "%08x", static_cast<unsigned>(call.AnswerSum()));
            if (record["sum"] != sum) {
                Depart(where + ": the recorded answer of " +
                       Describe(call.Name(), json::parse(call.Arguments())) +
                       " is not the one the recorder wrote (its sum is " + record["sum"].dump() +
                       ", the answer's \"" + sum + "\")");
            }
        }
    }

    std::mutex lock_;
    std::vector<json> calls_;
    std::vector<std::pair<std::size_t, std::size_t>> outputBefore_;
    std::map<std::size_t, std::vector<json>> events_;
    std::map<std::int64_t, Registration> registrations_;
    Stream streams_[2];
    std::size_t next_ = 0;
    std::string last_;
};

}  // namespace

std::unique_ptr<platform::rec::Tap> LoadReplay(const std::string& path, RecordingHeader& header) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw ReplayError("cannot be read");
    auto replayer = std::make_unique<Replayer>();
    try {
        replayer->Load(file, header);
    } catch (const json::exception& error) {
        throw ReplayError(std::string("a field of the wrong kind: ") + error.what());
    }
    active = replayer.get();
    return replayer;
}

void FinishReplay() {
    if (active != nullptr) active->Finish();
}

}  // namespace sim
