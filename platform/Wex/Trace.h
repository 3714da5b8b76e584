// Wex tracing: named trace handles with levels 0 to 9, and the one trace macro.
#pragma once

#include <bitset>
#include <functional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "Memtrail/Memtrail.h"

namespace Wex {

// A named trace channel. A level switched on formats its messages at once and hands them
// to the sink; every trace point also writes its record into the default Memtrail handle,
// whatever the levels, and that record is formatted only when it is read.
class TraceHandle {
public:
    TraceHandle(char const* name, bool allLevelsOn);
    TraceHandle(TraceHandle const&) = delete;
    TraceHandle& operator=(TraceHandle const&) = delete;
    ~TraceHandle();

    char const* name() const noexcept { return name_; }
    bool levelOn(unsigned level) const noexcept { return level < 10 && levels_[level]; }
    void levelIs(unsigned level, bool on) noexcept;

    // Levels for a handle by name, kept for handles not yet created (units create theirs on
    // first use). Returns false for a level outside 0 to 9.
    static bool levelIs(std::string_view handleName, unsigned level, bool on);
    using Sink = std::function<void(std::string_view line)>;
    // Where messages of levels switched on go; standard error by default.
    static void sinkIs(Sink sink);

    template <class... S>
    void trace(Memtrail::Site const& site, S&&... args) {
        Memtrail::Handle* const m = Memtrail::defaultHandle();
        if (!levelOn(site.level)) {
            // The arguments are this call's own copies: the record takes them over.
            if (m) m->write(site, name_, std::forward<S>(args)...);
            return;
        }
        if (m) m->write(site, name_, args...);
        emit(site.level, site.className, site.function, fmt::vformat(site.format, fmt::make_format_args(args...)));
    }

private:
    void emit(unsigned level, char const* cls, char const* func, std::string const& message) const;
    char const* name_;
    std::bitset<10> levels_;
};

// Arguments are stored as Memtrail keeps them: pointers as addresses, text as owned copies.
// The format is the site's; it is passed again only to be checked against the arguments.
template <class... A>
void traceWrite(TraceHandle& h, Memtrail::Site const& site, fmt::format_string<Memtrail::Stored<A>...>, A&&... args) {
    h.trace(site, Memtrail::store(std::forward<A>(args))...);
}

} // namespace Wex

// Trace at `level` through `handle` from class `cls` in the calling function; the arguments are
// the format and its values. The trace point is described once, in static storage; a record
// keeps its address.
#define WEX_TRACE(handle, level, cls, ...)                                                          \
    do {                                                                                            \
        static constexpr ::Memtrail::Site wexTraceSite{(level), (cls), __func__,                    \
                                                       WEX_TRACE_FORMAT_(__VA_ARGS__)};             \
        ::Wex::traceWrite((handle), wexTraceSite, __VA_ARGS__);                                     \
    } while (false)
#define WEX_TRACE_FORMAT_(format, ...) (format)
