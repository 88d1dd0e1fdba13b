// BlockingIpcHandler: sends requests to other daemons of the camera and waits for their replies,
// for callers without an event loop.
//
// Made with a name and opened by init, it sends any number of requests; after waitAllRequestsSent
// and waitAllResponsesReceived, getStatus tells how each of them ended.
//
// A request is a map of named values. The handler reads two of them: "id" (unsigned), by which the
// reply is known, and "responseExpected" (bool), whether there will be one; the others are the
// receiver's business.
//
// Threads:   one handler belongs to one thread.
// Ownership: the handler owns its connection and copies of the requests; the destructor drops both,
//            waits for nothing, and replies that come later are lost.
// Failure:   false. Nothing is thrown but std::bad_alloc.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "vexo/variant/Variant.h"

namespace vexo::ipc {

// `name` with a suffix that tells this process, and this call in it, from all others: the name of a
// short-lived handler, of which there may be several at a time. Does not block.
std::string appendSuffix(const std::string& name);

class BlockingIpcHandler {
 public:
  // `name`: the handler's own address; no two handlers of the camera have the same at one time.
  // Opens nothing yet.
  explicit BlockingIpcHandler(const std::string& name);
  BlockingIpcHandler(const BlockingIpcHandler&) = delete;
  BlockingIpcHandler& operator=(const BlockingIpcHandler&) = delete;
  ~BlockingIpcHandler();

  // Opens the connection; to be called once, before all that follows. Does not block.
  // False: the name is taken or is none, or the system gave no connection.
  bool init();

  // Queues a copy of `message` for the daemon named `destination`. Does not block, and does not
  // wait for the destination to exist.
  // False: not initialised, `message` is no map or has no "id", or it cannot be queued.
  bool sendRequest(const variant::Variant& message, const std::string& destination);

  // Blocks until all queued requests have been handed to their destinations, for `timeoutMs` at
  // most; at once true when there are none. A signal does not end the wait.
  // False: not initialised, time is up (what is left stays queued), or a destination refused.
  bool waitAllRequestsSent(unsigned int timeoutMs);

  // Blocks until each request that expects a reply has one, for `timeoutMs` at most; at once true
  // when none does. A signal does not end the wait.
  // False: not initialised, time is up (replies that came are kept), or a connection was lost.
  bool waitAllResponsesReceived(unsigned int timeoutMs);

  // What the reply to the request with that "id" said: 0 for success, else the receiver's code.
  // Negative when no reply to it has come. Does not block.
  int getStatus(std::uint64_t id) const;

 private:
  struct Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace vexo::ipc
