/// Hands a request body from a connection, which reads asynchronously, to the thread that
/// runs the service's blocking body reader. The reader asks for a piece, the connection reads
/// one and delivers it: nothing is read ahead, so a request holds at most one piece in
/// memory, and a client that sends slowly slows only its own reader.
#ifndef VEXO_CLOUD_BODY_FEED_H
#define VEXO_CLOUD_BODY_FEED_H

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>

#include "cloud_service.h"

namespace vexo_cloud {

class BodyFeed {
  public:
    /// ask_next is called on the reader's thread when it wants the next piece; it must not
    /// block (it hands the work to the connection). ended: there is no body to read.
    BodyFeed(std::function<void()> ask_next, bool ended);

    /// The reader side, as a BodyReader: hands each piece to sink; true when the body ended,
    /// false when the connection failed or sink refused a piece. Blocks between pieces.
    bool read(const BodySink &sink);

    // ---- the connection side, from any thread ----
    /// The piece asked for; last: the body ends with it.
    void deliver(std::string piece, bool last);
    /// The body cannot be read any further (timeout, client gone, server stopping).
    void fail();

  private:
    std::function<void()> ask_next_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string piece_;
    bool has_piece_ = false;
    bool asked_ = false;
    bool ended_ = false;
    bool failed_ = false;
};

} // namespace vexo_cloud

#endif
