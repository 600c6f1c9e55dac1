// Transfer is one HTTP(S) GET of a URL into a destination file, run on the calling thread: the
// caller starts it and then runs its event loop in short slices, during which the five events
// (response, data length, finished, failed, redirect) reach its receiver. The body streams to
// disk, or into memory for a small file whose caller places it itself. Connections and TLS
// sessions are kept alive across transfers in the process. A status of 400 or more is a failure
// naming the status; redirects are followed for http and https only.
// A request may carry the validators of a kept copy (If-None-Match, If-Modified-Since); a 304
// answer then ends the transfer without touching the destination. Over TLS, transfers to a host
// that speaks HTTP/2 share one connection.
// Extra trusted CA certificates come from the file named by ONDREL_CA_BUNDLE.
// Several transfers may run at once: the event loop of any of them drives them all. One thread
// drives a transfer; transfers of one process run on one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Url.h"

namespace ondrel {

struct TransferResponse {
  long status = 0;
  std::string url;
  // -1 when the response states no length.
  std::int64_t expectedContentLength = -1;
  // The response's validators, empty when it sent none or one unfit to be sent back (among them
  // a Last-Modified later than the response's Date, which would freeze the copy kept from it).
  std::string etag;
  std::string lastModified;
  // A 206 that continues the destination file from this offset (see resumeFrom); 0 otherwise,
  // when the body replaces whatever the file held.
  std::uint64_t resumedFrom = 0;
  // A 304: the kept copy is current, and no body follows.
  bool notModified() const { return status == 304; }
};

struct TransferError {
  int code = 0;
  std::string description;
  // The response's status when the failure is an HTTP status of 400 or more, else 0.
  long httpStatus = 0;
  // The transfer ran past its deadline or stayed below its lowest speed.
  bool tooSlow = false;
  // The transfer broke off (the connection, a time limit, an interruption) after a response that
  // was taken: what reached the destination is a sound first part of the body. False when the
  // server or this side refused the body.
  bool cutShort = false;
  // A 429 or 503 whose Retry-After (seconds, or a date) asks to come back after this many
  // seconds; none otherwise.
  std::optional<std::int64_t> retryAfterSeconds;
};

// Receives the events of a transfer, on the thread that runs its event loop.
class TransferReceiver {
 public:
  virtual ~TransferReceiver() = default;
  virtual void transferDidReceiveResponse(const TransferResponse& response) = 0;
  virtual void transferDidReceiveDataOfLength(std::uint64_t length) = 0;
  virtual void transferDidFinish() = 0;
  virtual void transferDidFailWithError(const TransferError& error) = 0;
  // Sent before a redirect is followed; the new request is always accepted.
  virtual void transferWillRedirect(const std::string& newUrl) = 0;
};

class Transfer {
 public:
  // None when no transfer can be made for the URL (an unsupported scheme, for one).
  static std::unique_ptr<Transfer> create(const Url& url, std::chrono::seconds idleTimeout,
                                          TransferReceiver* receiver);
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // The file the body goes to; created (replacing any file there) when the response arrives.
  void setDestination(std::string path);
  // Others read the destination file while it grows: each block received reaches it at once.
  void setDestinationReadAsItGrows();
  // Instead of a file, *body receives the body (emptied when the response arrives); a body
  // longer than limit fails the transfer. *body must outlive the transfer.
  void setDestinationInMemory(std::string* body, std::size_t limit);
  // A body longer than this fails the transfer as soon as its Content-Length or the bytes
  // received say so, before more is written.
  void setLengthLimit(std::uint64_t bytes);
  // Asks with HEAD: the response's status and headers, no body.
  void setHeadOnly();
  // Asks for the rest of the file from offset on, if the file upstream is still the one
  // ifRange (its strong ETag or Last-Modified) came with: a 206 that continues at offset is
  // appended to the destination file, a 200 replaces it, any other partial answer fails.
  void resumeFrom(std::uint64_t offset, const std::string& ifRange);
  // The transfer fails once it has run for longer than deadline, or when it receives fewer than
  // lowestSpeed bytes a second over a whole window.
  void setTimeLimits(std::chrono::seconds deadline, std::uint64_t lowestSpeed,
                     std::chrono::seconds window);
  // Asks for the body only when it differs from the copy these validators came with; either may
  // be empty. A validator with control characters, or a Last-Modified in the future, is not sent.
  void setConditions(const std::string& etag, const std::string& lastModified);
  // Starts the request; events follow while runEventLoopFor runs.
  void start();
  // The SHA-256 of the destination file as the body arrived, once the transfer finished with
  // a body written there; none otherwise (a body in memory, a failure, a continued file whose
  // first part could not be read).
  const std::optional<std::string>& destinationDigest() const;
  // Runs the thread's event loop, which drives every started transfer of the process, for at
  // most the given time or until one of them has received its response or ended.
  void runEventLoopFor(std::chrono::milliseconds slice);
  bool isFinished() const;

  // Ends every transfer of the process at its next slice, and every later one at once, with the
  // failure "interrupted". Safe to call from a signal handler; there is no way back.
  static void cancelAll();
  static bool isCancelled();
  // At most this many connections to one host, and as many kept alive across transfers.
  static void setConnectionsPerHost(std::size_t connections);

 private:
  class Impl;
  explicit Transfer(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace ondrel
