// Names for the result codes the calls share. A family that adds codes of its own names them
// beside its command codes; what each code means for a given call is documented with the call.
#pragma once

namespace varnel::result {

inline constexpr int kOk = 0;
// The handle is not known (no device index), or a network adapter is not connected and could
// not be reached.
inline constexpr int kUnknownHandle = -1;
// The command could not be written.
inline constexpr int kWriteFailed = -2;
// Transport level: the reply was missing, short, too long or answered another command.
inline constexpr int kReplyMissing = -3;
// Family level: the reply could not be read, had the wrong length or reported a failure.
// (The transport's send uses the same value when the packet buffer cannot be allocated.)
inline constexpr int kReplyFailed = -4;
// The same code as the families' catch-all: an unknown handle or channel, or any other failure
// the call has no code of its own for.
inline constexpr int kFailed = -4;
inline constexpr int kNoMemory = -4;
inline constexpr int kNotInitialised = -5;
inline constexpr int kBadArgument = -7;

}  // namespace varnel::result
