#pragma once
// A loopback content host whose every byte of response body, over all connections together, waits its turn
// at a fixed rate: an update through it can take no less than its bytes ÷ the rate. It serves a published
// tree's files and, at /api/mirrors, its own content folder as the one mirror. Answers GET only, one request
// per connection.
//
//   zrv_bench --serve-throttled TREE PORT BYTES_PER_SECOND COUNT_FILE
// runs until SIGTERM, then writes the number of body bytes it sent to COUNT_FILE.

inline constexpr const char* kServeThrottled = "--serve-throttled";

/// The child mode; its exit status.
int serveThrottled(int argc, char** argv);
