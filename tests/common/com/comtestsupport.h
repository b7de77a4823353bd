// Shared pieces of the object-model tests: a recording failure handler, a counting allocator, a journal of
// events and a family of probe classes shaped like the system's (concrete class over an abstract base over
// an interface).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/com/comclass.h"
#include "common/com/comptr.h"
#include "common/com/refcounted.h"
#include "common/diagnostics/log.h"
#include "common/diagnostics/runtimecheck.h"
#include "common/utils/allocator.h"

namespace comtest {

inline constexpr const char* kRefCountedFile = "../common/include/common/com/refcounted";
inline constexpr const char* kComClassFile = "../common/include/common/com/comclass";
inline constexpr const char* kComPtrFile = "../common/include/common/com/comptr";

// ---------------------------------------------------------------------------------------------------------
// Failure reports

/// One failed check as the handler saw it.
struct Report {
    std::string function;
    std::string file;
    std::optional<uint32_t> line;
    bool reservedIsNull = false;
    std::string expression;
    std::string message;
    std::thread::id thread;
};

/// Installs a failure handler that records every report (thread-safe); removes it when destroyed.
class FailureRecorder {
public:
    FailureRecorder() {
        common::diagnostics::RuntimeCheck::setFailureHandler(common::diagnostics::FailureHandler::makeUnique(
            [this](common::diagnostics::SourceInfo const& source, char const* reserved, char const* expression,
                   char const* message) {
                std::lock_guard lock(m_mutex);
                m_reports.push_back(Report{std::string(source.function), std::string(source.file), source.line,
                                           reserved == nullptr, expression ? expression : "<null>",
                                           message ? message : "<null>", std::this_thread::get_id()});
            }));
    }
    ~FailureRecorder() { common::diagnostics::RuntimeCheckInternal::instance().removeFailureHandler(nullptr); }
    FailureRecorder(const FailureRecorder&) = delete;
    FailureRecorder& operator=(const FailureRecorder&) = delete;

    std::vector<Report> reports() const {
        std::lock_guard lock(m_mutex);
        return m_reports;
    }
    size_t count() const {
        std::lock_guard lock(m_mutex);
        return m_reports.size();
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_reports.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Report> m_reports;
};

/// Asserts one report's expression, function and file, the null reserved text and the message.
inline void expectReport(const Report& report, const std::string& expression, const std::string& function,
                         const std::string& file, const std::string& message = "") {
    EXPECT_EQ(report.expression, expression);
    EXPECT_EQ(report.function, function);
    EXPECT_EQ(report.file, file);
    EXPECT_TRUE(report.line.has_value());
    EXPECT_TRUE(report.reservedIsNull);
    EXPECT_EQ(report.message, message);
}

// ---------------------------------------------------------------------------------------------------------
// Log entries

/// One log message as the handler saw it.
struct LogEntry {
    int level;
    std::string function;
    std::string file;
    std::string message;
};

/// Installs a log handler that records every message; removes it when destroyed.
class LogRecorder {
public:
    LogRecorder() {
        using common::diagnostics::Log;
        Log::setHandler(Log::Handler::makeUnique(
            [this](Log::Level level, common::diagnostics::LogContext const& context, char const* message) {
                m_entries.push_back(LogEntry{static_cast<int>(level), std::string(context.source.function),
                                             std::string(context.source.file), message});
            }));
    }
    ~LogRecorder() { common::diagnostics::Log::setHandler(nullptr); }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    const std::vector<LogEntry>& entries() const { return m_entries; }

private:
    std::vector<LogEntry> m_entries;
};

// ---------------------------------------------------------------------------------------------------------
// Journal of destructor runs and block frees, to check their order

class Journal {
public:
    void note(std::string event) {
        std::lock_guard lock(m_mutex);
        m_events.push_back(std::move(event));
    }
    std::vector<std::string> events() const {
        std::lock_guard lock(m_mutex);
        return m_events;
    }
    void clear() {
        std::lock_guard lock(m_mutex);
        m_events.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_events;
};

inline Journal& journal() {
    static Journal instance;
    return instance;
}

// ---------------------------------------------------------------------------------------------------------
// Counting allocator

/// One block handed out or returned.
struct BlockEvent {
    enum Kind { Alloc, Free } kind;
    void* ptr;
    uint64_t size;  ///< the size asked for, or the size given back to `free`
    std::optional<uint64_t> alignment;
    uint32_t allocatorRefs;  ///< the allocator's own strong count at the time of the call
};

/// Heap allocator that records every block it hands out and gets back, with sizes; safe from any thread.
/// Frees of blocks it never handed out, or of blocks already returned, are counted as faults.
class CountingAllocator final : public common::Allocator {
    COMMON_COM_CLASS(CountingAllocator, common::ConcurrentRC, common::Allocator)

public:
    /// With `recordEvents` false only the counters are kept (for the stress test).
    explicit CountingAllocator(bool recordEvents = true) : m_recordEvents(recordEvents) {}
    ~CountingAllocator() override {
        for (auto& [ptr, size] : m_live)
            std::free(ptr);
    }

    void* realloc(void* ptr, uint64_t size, std::optional<uint64_t> alignment = std::nullopt) override {
        if (m_failNext.exchange(false))
            return nullptr;
        void* block = std::malloc(size);
        if (!block)
            return nullptr;
        std::lock_guard lock(m_mutex);
        if (ptr) {
            auto found = m_live.find(ptr);
            if (found == m_live.end()) {
                ++m_faults;
            } else {
                std::memcpy(block, ptr, std::min<uint64_t>(found->second, size));
                m_live.erase(found);
                std::free(ptr);
            }
        }
        m_live.emplace(block, size);
        m_allocs.fetch_add(1);
        if (m_recordEvents)
            m_events.push_back(BlockEvent{BlockEvent::Alloc, block, size, alignment, refsCount()});
        return block;
    }

    void free(void* ptr, std::optional<uint64_t> size = std::nullopt) override {
        {
            std::lock_guard lock(m_mutex);
            auto found = m_live.find(ptr);
            if (found == m_live.end()) {
                ++m_faults;
                return;
            }
            if (size && *size != found->second)
                ++m_sizeMismatches;
            m_live.erase(found);
            m_frees.fetch_add(1);
            if (m_recordEvents)
                m_events.push_back(BlockEvent{BlockEvent::Free, ptr, size.value_or(0), std::nullopt, refsCount()});
        }
        if (m_recordEvents)
            journal().note("free");
        std::free(ptr);
    }

    /// The next `realloc` gives no block.
    void failNext() { m_failNext = true; }

    uint64_t allocs() const { return m_allocs.load(); }
    uint64_t frees() const { return m_frees.load(); }
    uint64_t liveBlocks() const {
        std::lock_guard lock(m_mutex);
        return m_live.size();
    }
    uint64_t faults() const {
        std::lock_guard lock(m_mutex);
        return m_faults;
    }
    uint64_t sizeMismatches() const {
        std::lock_guard lock(m_mutex);
        return m_sizeMismatches;
    }
    bool holds(void* ptr) const {
        std::lock_guard lock(m_mutex);
        return m_live.count(ptr) != 0;
    }
    std::vector<BlockEvent> events() const {
        std::lock_guard lock(m_mutex);
        return m_events;
    }

private:
    const bool m_recordEvents;
    std::atomic<bool> m_failNext{false};
    std::atomic<uint64_t> m_allocs{0};
    std::atomic<uint64_t> m_frees{0};
    mutable std::mutex m_mutex;
    std::map<void*, uint64_t> m_live;
    uint64_t m_faults = 0;
    uint64_t m_sizeMismatches = 0;
    std::vector<BlockEvent> m_events;
};

/// Creates a counting allocator from the heap allocator (the default slot must be empty) and installs it as
/// the default; restores the heap allocator as the default when destroyed.
class ScopedCountingAllocator {
public:
    explicit ScopedCountingAllocator(bool recordEvents = true) {
        m_allocator = common::com::createInstance<CountingAllocator, CountingAllocator>(recordEvents);
        common::setDefaultAllocator(common::ComPtr<common::Allocator>(m_allocator));
    }
    ~ScopedCountingAllocator() { common::setDefaultAllocator({}); }
    ScopedCountingAllocator(const ScopedCountingAllocator&) = delete;
    ScopedCountingAllocator& operator=(const ScopedCountingAllocator&) = delete;

    CountingAllocator* operator->() const { return m_allocator.get(); }
    const common::ComPtr<CountingAllocator>& handle() const { return m_allocator; }

private:
    common::ComPtr<CountingAllocator> m_allocator;
};

// ---------------------------------------------------------------------------------------------------------
// Probe classes: ProbeImpl<RC> : ProbeBase : IProbe, plus an interface nobody implements

/// The probes' public interface.
struct IProbe : public virtual IRefCounted {
    virtual int value() const = 0;
};

/// An interface no probe implements.
struct IUnrelated : public virtual IRefCounted {
    virtual void nothing() = 0;
};

/// Counts constructions and destructions of probes.
struct ProbeStats {
    std::atomic<int> constructed{0};
    std::atomic<int> destroyed{0};
};

inline ProbeStats& probeStats() {
    static ProbeStats stats;
    return stats;
}

/// The abstract intermediate base, declaring the interface it builds on.
class ProbeBase : public IProbe {
    COMMON_COM_BASES(ProbeBase, IProbe);

public:
    explicit ProbeBase(int value) : m_value(value) {}
    int value() const override { return m_value; }
    /// Whether the object is between its constructor and its destructor.
    bool alive() const { return m_alive.load(); }

protected:
    ~ProbeBase() override { m_alive.store(false); }

private:
    int m_value;
    std::atomic<bool> m_alive{true};
};

/// The concrete probe, for any count policy. Its destructor notes "dtor" in the journal when asked to and
/// runs an optional hook with the dying object (used to re-enter handles and counts from inside a destructor).
template <typename RC>
class ProbeImpl final : public ProbeBase {
    COMMON_COM_CLASS(ProbeImpl, RC, ProbeBase)

public:
    explicit ProbeImpl(int value = 0, bool noteInJournal = false, void (*onDestroy)(IProbe&) = nullptr)
        : ProbeBase(value), m_noteInJournal(noteInJournal), m_onDestroy(onDestroy) {
        probeStats().constructed.fetch_add(1);
    }
    ~ProbeImpl() override {
        probeStats().destroyed.fetch_add(1);
        if (m_noteInJournal)
            journal().note("dtor");
        if (m_onDestroy)
            m_onDestroy(*this);
    }

    uint64_t padding[3] = {};  // makes the object larger than its bases, so block sizes are telling

private:
    bool m_noteInJournal;
    void (*m_onDestroy)(IProbe&);
};

using SingleProbe = ProbeImpl<common::SingleThreadRC>;
using ConcurrentProbe = ProbeImpl<common::ConcurrentRC>;
using StrictProbe = ProbeImpl<common::StrictSingleThreadRC>;

/// The strong count of the object behind any interface pointer.
template <typename T>
uint32_t refs(T* object) {
    return static_cast<IRefCounted*>(object)->refsCount();
}

}  // namespace comtest
