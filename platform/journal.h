#pragma once

#include <span>
#include <string>
#include <string_view>

// The platform's and the host's own diagnostics: one line on standard error, which a service manager keeps in its
// journal. Never the agent's log file. Any thread; a line comes out whole. The caller never waits, whatever standard
// error is, and no signal reaches it; errno stays.
//
// A line that standard error does not take is dropped. The next one that it takes comes after the number of those.
//
// Lines that differ in their numbers only count as equal: 20 of them are written at once, then one in 10 s. All errors
// together, and all notices, are limited to 200 at once, then 20 a second. The number left out comes with a later line
// of any kind.
//
// A line has at most 4096 bytes, the rest is cut off. Control characters become question marks.
void JournalNotice(std::string_view text) noexcept;
// For a text with words that somebody else chooses: lines of the same kind count as equal.
void JournalNotice(std::string_view text, std::string_view kind) noexcept;
// For what somebody should mend; limited together with the notices.
void JournalWarning(std::string_view text) noexcept;
void JournalWarning(std::string_view text, std::string_view kind) noexcept;
void JournalError(std::string_view text) noexcept;

// One report of several lines. It is limited as a whole, by its first line.
void JournalErrors(std::span<const std::string> lines) noexcept;
