// SPDX-License-Identifier: GPL-2.0-only
#include "ports/capture_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tarvelo::ports {

namespace {

constexpr s64 nanoseconds_per_second = 1'000'000'000;
constexpr s64 nanoseconds_per_microsecond = 1'000;
constexpr int snapshot_length = 262144;  ///< the longest frame that libpcap itself takes

int link_type_of(link_layer link) {
  return link == link_layer::ethernet ? DLT_EN10MB : DLT_RAW;
}

std::string link_type_name(int type) {
  const char* name = pcap_datalink_val_to_name(type);
  return name != nullptr ? name : std::to_string(type);
}

FILE* open_regular(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) {
    throw capture_error(path + ": cannot be opened: " + std::strerror(errno) +
                        "; name a capture file that can be read");
  }
  struct stat status {};
  if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) {
    std::fclose(file);
    throw capture_error(path + ": not a regular file; save the capture to a file first");
  }
  return file;
}

}  // namespace

capture_reader::capture_reader(std::string path, link_layer link) : path_(std::move(path)) {
  FILE* file = open_regular(path_);
  char text[PCAP_ERRBUF_SIZE] = "";
  file_.reset(pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, text));
  if (!file_) {
    std::fclose(file);
    throw capture_error(path_ + ": not a capture file: " + text + "; give one in pcap format");
  }
  const int type = pcap_datalink(file_.get());
  if (type != link_type_of(link)) {
    throw capture_error(
        path_ + ": link type " + link_type_name(type) + " does not fit; capture " +
        (link == link_layer::ethernet ? "Ethernet frames (EN10MB)" : "bare IP packets (RAW)"));
  }
}

std::optional<captured_frame> capture_reader::next() {
  pcap_pkthdr* header = nullptr;
  const u_char* bytes = nullptr;
  const int result = pcap_next_ex(file_.get(), &header, &bytes);
  if (result == PCAP_ERROR_BREAK) return std::nullopt;
  if (result != 1) {
    throw capture_error(path_ + ":frame " + std::to_string(frames_ + 1) + ": damaged: " +
                        pcap_geterr(file_.get()) + "; capture it again or cut it off there");
  }
  ++frames_;
  // A file's seconds have 32 bits and no sign, but libpcap shows those from 2038 on as negative.
  const auto seconds = static_cast<u32>(header->ts.tv_sec);
  // libpcap leaves nanoseconds in the field that is named after microseconds.
  const s64 time = s64{seconds} * nanoseconds_per_second + header->ts.tv_usec;
  return captured_frame{time, {bytes, header->caplen}};
}

capture_writer::capture_writer(std::string path, link_layer link)
    : path_(std::move(path)), handle_(pcap_open_dead(link_type_of(link), snapshot_length)) {
  if (handle_) dump_.reset(pcap_dump_open(handle_.get(), path_.c_str()));
  if (!dump_) {
    throw capture_error(path_ + ": cannot be written: " +
                        (handle_ ? pcap_geterr(handle_.get()) : std::strerror(ENOMEM)) +
                        "; choose a directory that can be written");
  }
}

void capture_writer::write(s64 time, std::span<const u8> bytes) {
  pcap_pkthdr header{};
  header.ts.tv_sec = static_cast<time_t>(time / nanoseconds_per_second);
  header.ts.tv_usec =
      static_cast<suseconds_t>(time % nanoseconds_per_second / nanoseconds_per_microsecond);
  header.caplen = static_cast<bpf_u_int32>(bytes.size());
  header.len = header.caplen;
  pcap_dump(reinterpret_cast<u_char*>(dump_.get()), &header, bytes.data());
}

void capture_writer::close() {
  if (!dump_) return;
  // pcap_dump() reports nothing: the stream's error mark has to be asked before it is closed.
  const bool good =
      pcap_dump_flush(dump_.get()) == 0 && std::ferror(pcap_dump_file(dump_.get())) == 0;
  const int reason = errno;
  dump_.reset();
  if (!good)
    throw capture_error(path_ + ": cannot be written: " + std::strerror(reason) +
                        "; make room for it");
}

}  // namespace tarvelo::ports
