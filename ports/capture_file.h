// SPDX-License-Identifier: GPL-2.0-only
//
// Capture files, one at a time, in order. Read is whatever libpcap reads, as long as its frames are
// Ethernet frames (DLT_EN10MB) or bare IP packets (DLT_RAW); written is the classic format with
// microseconds. Times are nanoseconds, since the epoch or since any other beginning.
//
// One thread. Errors are capture_error; what() names the file and the place in it.
#pragma once

#include <pcap/pcap.h>

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "kernel/types.h"
#include "ports/port.h"

namespace tarvelo::ports {

class capture_error : public port_error {
 public:
  using port_error::port_error;
};

struct captured_frame {
  s64 time;                   ///< nanoseconds
  std::span<const u8> bytes;  ///< as far as captured; valid until the next one is read
};

class capture_reader {
 public:
  /// Opens a regular file and checks its header and link type.
  capture_reader(std::string path, link_layer link);

  /// The next frame, nothing at the end; throws at damage.
  [[nodiscard]] std::optional<captured_frame> next();

 private:
  struct closer {
    void operator()(pcap_t* file) const noexcept { pcap_close(file); }
  };

  std::string path_;
  std::unique_ptr<pcap_t, closer> file_;
  u64 frames_ = 0;
};

class capture_writer {
 public:
  capture_writer(std::string path, link_layer link);

  void write(s64 time, std::span<const u8> bytes);
  /// Everything is in the file, or an error is thrown.
  void close();

 private:
  struct handle_closer {
    void operator()(pcap_t* handle) const noexcept { pcap_close(handle); }
  };
  struct dump_closer {
    void operator()(pcap_dumper_t* dump) const noexcept { pcap_dump_close(dump); }
  };

  std::string path_;
  std::unique_ptr<pcap_t, handle_closer> handle_;
  std::unique_ptr<pcap_dumper_t, dump_closer> dump_;
};

}  // namespace tarvelo::ports
