// The failures of the write path and of pipeline parsing. Each carries a message for people. The
// handlers run on the thread that raised the exception, with the activity lock held; each one is
// defined beside the state that it changes.
#pragma once

#include <string>

#include "P4Runtime/companion/ErrorCode.h"
#include "P4Runtime/companion/ResourceId.h"
#include "PI/pi_base.h"
#include "platform/vela/Exception.h"

namespace P4Runtime {

// The status of a failed update; its error stands in the batch's status vector.
inline constexpr pi_status_t updateFailedStatus = static_cast<pi_status_t>(40);

// The error of one update of a batch.
class P4RuntimeException : public Vela::Exception {
 public:
  P4RuntimeException(const std::string& message, EntryHandle entryHandle, BatchOffset offset,
                     ErrorCode errorCode)
      : Exception(message), entryHandle(entryHandle), offset_(offset), errorCode(errorCode) {}

  // Records the error for the update's offset, puts the entry back, and returns
  // updateFailedStatus. Defined in RunUpdate.cpp.
  static pi_status_t handleException(const P4RuntimeException& e);

  const EntryHandle entryHandle;  // 0: of no entry
  BatchOffset offset() const { return offset_; }

 private:
  const BatchOffset offset_;

 public:
  const ErrorCode errorCode;
};

// The pipeline configuration could not be read or realised.
class P4RuntimeParsingException : public Vela::Exception {
 public:
  P4RuntimeParsingException(std::string latticeError, std::string error, std::string jsonError,
                            std::string hint = {})
      : Exception(error),
        latticeError(std::move(latticeError)),
        error(std::move(error)),
        jsonError(std::move(jsonError)),
        hint(std::move(hint)) {}

  // Publishes the texts in the parsing status and writes them to standard error. Defined
  // with ParsingStatus.
  static void handleException(const P4RuntimeParsingException& e);

  const std::string latticeError;  // of the table library
  const std::string error;
  const std::string jsonError;  // where the JSON text stopped making sense
  const std::string hint;       // the way out; may be empty
};

// The hardware's state can no longer be trusted; writes are refused from here on.
class P4RuntimeCriticalStateException : public Vela::Exception {
 public:
  P4RuntimeCriticalStateException(const std::string& message, EntryHandle entryHandle,
                                  ErrorCode errorCode)
      : Exception(message), entryHandle(entryHandle), errorCode(errorCode) {}

  // Enters the critical state. Defined in CriticalState.cpp, as are those below.
  static void handleException(const P4RuntimeCriticalStateException& e);

  const EntryHandle entryHandle;
  const ErrorCode errorCode;
};

// The agent found an invariant of its own broken; writes are refused from here on.
class P4RuntimeBrokenInvariantException : public Vela::Exception {
 public:
  using Exception::Exception;

  // Enters the critical state, publishes that an invariant is broken, and returns
  // updateFailedStatus.
  static pi_status_t handleException(const P4RuntimeBrokenInvariantException& e);
  // Trusts the hardware again: reads and writes are allowed, as soon as the gate for Writes is
  // open.
  static void revertCriticalState();
};

}  // namespace P4Runtime
