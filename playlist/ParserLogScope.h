#pragma once

namespace kestrow {

// While a scope lives on a thread, the GLib messages raised on that thread
// (the playlist parser's, and the criticals of the GLib calls it makes on a
// hostile playlist) go to the log instead of stderr. Messages raised on any
// other thread go on to the default handler that was installed before the
// first scope, untouched (called with no user data, which GLib's own ignores).
// The handler is installed as GLib's default handler by the first scope of
// the process and stays. Scopes nest; thread-safe.
class ParserLogScope {
public:
    ParserLogScope();
    ~ParserLogScope();
    ParserLogScope(const ParserLogScope&) = delete;
    ParserLogScope& operator=(const ParserLogScope&) = delete;
};

}  // namespace kestrow
