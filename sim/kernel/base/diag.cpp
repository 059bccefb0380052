// Debug output and rule violations of the simulated kernel.
#include "kvsim/diag.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "kv/debug.h"
#include "kvsim/sched.h"

namespace kvsim {
namespace {

struct DiagState {
    std::mutex lock;
    std::vector<std::string> messages;
    std::vector<std::string> violations;
    bool echo = false;
    FILE* trace = nullptr;  // KVSIM_TRACE or SetTraceFile
};

// The trace file at `path`, or null (with a line on stderr) when it cannot be written.
FILE* OpenTrace(const char* path) {
    FILE* trace = std::fopen(path, "w");
    if (trace == nullptr) std::fprintf(stderr, "kvsim: cannot write the trace file %s\n", path);
    return trace;
}

DiagState& State() {
    // Never destroyed: threads may print during exit.
    static DiagState* state = [] {
        auto* s = new DiagState;
        const char* path = std::getenv("KVSIM_TRACE");
        if (path != nullptr && *path != '\0') s->trace = OpenTrace(path);
        return s;
    }();
    return *state;
}

// One trace record: the virtual time in seconds (100-ns digits), then the
// message, on a line of its own.
void WriteTrace(FILE* trace, LONGLONG now, const std::string& text) {
    std::fprintf(trace, "%lld.%07lld %s%s", static_cast<long long>(now / kSecond),
                 static_cast<long long>(now % kSecond), text.c_str(),
                 text.empty() || text.back() != '\n' ? "\n" : "");
    std::fflush(trace);
}

std::string FormatV(const char* fmt, va_list args) {
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0) return std::string("<bad format: ") + fmt + ">";
    std::string text(static_cast<size_t>(n), '\0');
    std::vsnprintf(text.data(), text.size() + 1, fmt, args);
    return text;
}

void AddMessage(std::string text) {
    auto& s = State();
    // The time is read outside the lock: the first use of the clock starts
    // the simulated kernel, which may report through this module.
    const bool tracing = [&s] {
        std::lock_guard<std::mutex> guard(s.lock);
        return s.trace != nullptr;
    }();
    const LONGLONG now = tracing ? Now() : 0;
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.echo) std::fprintf(stderr, "%s", text.c_str());
    if (s.trace != nullptr) WriteTrace(s.trace, now, text);
    s.messages.push_back(std::move(text));
}

}  // namespace

void ReportViolation(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string text = FormatV(fmt, args);
    va_end(args);
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    std::fprintf(stderr, "kvsim violation: %s\n", text.c_str());
    s.violations.push_back(std::move(text));
}

std::vector<std::string> TakeViolations() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    std::vector<std::string> out;
    out.swap(s.violations);
    return out;
}

std::vector<std::string> DebugMessages() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    return s.messages;
}

std::vector<std::string> DebugLines() {
    std::vector<std::string> lines;
    std::string current;
    bool open = false;
    for (const auto& m : DebugMessages()) {
        for (char c : m) {
            if (c == '\n') {
                lines.push_back(current);
                current.clear();
                open = false;
            } else {
                current += c;
                open = true;
            }
        }
    }
    if (open) lines.push_back(current);
    return lines;
}

void ClearDebugLog() {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.messages.clear();
}

void SetTraceFile(const std::string& path) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.trace != nullptr) std::fclose(s.trace);
    s.trace = path.empty() ? nullptr : OpenTrace(path.c_str());
}

void SetDebugEcho(bool on) {
    auto& s = State();
    std::lock_guard<std::mutex> guard(s.lock);
    s.echo = on;
}

}  // namespace kvsim

extern "C" ULONG DbgPrint(PCSTR Format, ...) {
    va_list args;
    va_start(args, Format);
    kvsim::AddMessage(kvsim::FormatV(Format, args));
    va_end(args);
    return STATUS_SUCCESS;
}

// DbgPrintEx filters by component and level on Windows; the simulation keeps
// every message so that tests see all of them.
extern "C" ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...) {
    va_list args;
    va_start(args, Format);
    kvsim::AddMessage(kvsim::FormatV(Format, args));
    va_end(args);
    return STATUS_SUCCESS;
}

extern "C" VOID RtlAssert(PVOID VoidFailedAssertion, PVOID VoidFileName, ULONG LineNumber, PSTR MutableMessage) {
    kvsim::ReportViolation("ASSERT failed: %s%s%s (%s:%u)", static_cast<const char*>(VoidFailedAssertion),
                           MutableMessage ? " - " : "", MutableMessage ? MutableMessage : "",
                           static_cast<const char*>(VoidFileName), LineNumber);
}

extern "C" VOID DbgBreakPoint(VOID) { kvsim::ReportViolation("DbgBreakPoint reached"); }
