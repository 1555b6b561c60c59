// SPDX-License-Identifier: GPL-2.0-only
//
// TCP connections as scripts. Words of a script:
//   >S <SA >FA ...  a segment of the client, of the server, by its flags (. for none)
//   >R@900 <RA^77   the same with its own sequence or acknowledgement number
//   >SF!            the segment is to be dropped
//   =3              the state after the last segment that passed
//   +30000          time passes, in milliseconds
//   #1              so many connections are there
// The client's SYN has sequence number 1000, the server's 5000.
#include <sstream>

#include "tests/stack/tracker_fixture.h"

namespace tarvelo::test {
namespace {

constexpr u32 client_isn = 1000;
constexpr u32 server_isn = 5000;

class conntrack_tcp : public tracker_test {
 protected:
  static u8 flags_of(const std::string& word) {
    u8 flags = 0;
    for (char letter : word) {
      if (letter == 'S') flags |= wire::tcp_flag::syn;
      if (letter == 'A') flags |= wire::tcp_flag::ack;
      if (letter == 'F') flags |= wire::tcp_flag::fin;
      if (letter == 'R') flags |= wire::tcp_flag::rst;
    }
    return flags;
  }

  static u32 number_after(const std::string& word, char mark, u32 otherwise) {
    const std::size_t at = word.find(mark);
    return at == std::string::npos ? otherwise : static_cast<u32>(std::stoul(word.substr(at + 1)));
  }

  passage segment(const std::string& word) {
    const bool from_client = word[0] == '>';
    const u8 flags = flags_of(word);
    const u32 behind_syn = (flags & wire::tcp_flag::syn) != 0 ? 0 : 1;
    const u32 seq = number_after(word, '@', (from_client ? client_isn : server_isn) + behind_syn);
    const u32 ack = number_after(word, '^', (from_client ? server_isn : client_isn) + 1);
    const bool has_ack = (flags & wire::tcp_flag::ack) != 0;
    packet p = from_client ? packet().ipv4(host, peer).tcp(40000, 80)
                           : packet().ipv4(peer, host).tcp(80, 40000);
    p.flags(flags).seq(seq, has_ack ? ack : 0);
    return from_client ? outward(p) : inward(p);
  }

  void run(const std::string& script) {
    std::istringstream words(script);
    u8 state = 0;
    for (std::string word; words >> word;) {
      SCOPED_TRACE(word + " in \"" + script + "\"");
      if (word[0] == '=') {
        EXPECT_EQ(state, std::stoul(word.substr(1)));
      } else if (word[0] == '+') {
        pass(static_cast<u32>(std::stoul(word.substr(1))));
      } else if (word[0] == '#') {
        EXPECT_EQ(tracker().statistics().connections, std::stoull(word.substr(1)));
      } else {
        const passage result = segment(word);
        EXPECT_EQ(result.dropped, word.back() == '!');
        if (!result.dropped) state = result.tcp_state;
      }
    }
  }
};

class conntrack_tcp_script : public conntrack_tcp,
                             public testing::WithParamInterface<const char*> {};

TEST_P(conntrack_tcp_script, goes_as_written) {
  run(GetParam());
}

INSTANTIATE_TEST_SUITE_P(opening, conntrack_tcp_script,
                         testing::Values(">S =1 <SA =2 >A =3 <A =3 #1",
                                         // both sides begin at once
                                         ">S <S =9 >SA =2 <SA =2 >A =3",
                                         // the answer repeats itself, and so does the question
                                         ">S >S =1 <SA <SA =2 >S =2 >A =3 <SA =3 >S =3",
                                         // refused; a RST must acknowledge the SYN
                                         ">S <RA^77! =1 <R! =1 <RA =8 +9999 #1 +1 #0",
                                         // the server still holds half of an older connection
                                         ">S <A^700 =1 >R@700 =8 >S =1 #1", ">S >A! <FA! =1 <SA =2",
                                         // nothing but a SYN or a plain ACK begins one
                                         ">SA! >FA! >R! >RA! #0",
                                         // flags that no segment has
                                         ">SF! >SR! >.! >F! #0 >S <SA >A <SF! >FR! >F! >.! =3"));

INSTANTIATE_TEST_SUITE_P(
    closing, conntrack_tcp_script,
    testing::Values(">S <SA >A >FA =4 <A =5 <FA =6 >A =7 +119999 #1 +1 #0",
                    ">S <SA >A <FA =4 >A =5 >FA =6 <A =7",
                    // both at once
                    ">S <SA >A >FA =4 <FA =6 >A =7 <A =7 >FA =7 <FA =7",
                    // a side that has closed only repeats itself
                    ">S <SA >A >FA =4 >FA =4 >A =4 <A =5 >A =5 >FA =5 <FA =6",
                    // before the handshake is whole
                    ">S <SA <FA =4 >A =5",
                    // a RST far from what has been acknowledged is not believed
                    ">S <SA >A <R@4000! =3 <R@3000000000! =3 <R@6000 =8",
                    ">S <SA >A >R@1! =3 >RA =8",
                    // late segments pass, and do not keep a closed connection
                    ">S <SA >A >R =8 +9000 <A =8 >FA =8 >R =8 <SA =8 +1000 #0",
                    // the same ports again
                    ">S <SA >A >FA <FA >A =7 >S@9000 =1 #1 <SA^9001 =2 >A@9001 =3",
                    ">S <SA >A >R =8 >S@9000 =1 #1", ">S <SA >A <R =8 <S =1 #1"));

INSTANTIATE_TEST_SUITE_P(
    time_outs, conntrack_tcp_script,
    testing::Values(">S +119999 #1 +1 #0", ">S <SA +59999 #1 +1 #0",
                    ">S <SA >A +431999999 #1 <A +431999999 #1 +1 #0",
                    ">S <SA >A >FA +119999 #1 +1 #0", ">S <SA >A >FA <A +59999 #1 +1 #0",
                    ">S <SA >A >FA <FA +29999 #1 +1 #0",
                    // picked up: believed for long only when both sides are heard
                    ">A =3 +299999 #1 +1 #0", ">A <A =3 +300000 #1 +431699999 #1 +1 #0"));

TEST_F(conntrack_tcp, reset_is_believed_once_the_fast_path_has_carried_the_connection) {
  note_taking_module module;
  module.on_add = [](nf_conn* ct) { ct->vok_ext->flags |= ct_ext_flag::ever_added; };
  // Nobody here knows how far the sequence numbers have come.
  run(">S <SA >A <R@3000000000 =8");
  tracker().module_going();
}

/// An end that the module has believed and tracking has not leaves the connection to be cached
/// anew.
TEST_F(conntrack_tcp, rejected_end_takes_the_connection_off_the_fast_path) {
  note_taking_module module;
  vok_ct_ext* ext = nullptr;
  module.on_add = [&](nf_conn* ct) {
    ext = ct->vok_ext;
    if ((ext->flags & ct_ext_flag::ever_added) == 0) ext->flags |= ct_ext_flag::direction_marks;
  };
  run(">S <SA >A");
  ASSERT_NE(ext, nullptr);
  const packet fin =
      packet().ipv4(host, peer).tcp(40000, 80).flags(wire::tcp_flag::fin | wire::tcp_flag::ack);
  const struct {
    const char* what;
    u32 ever_added;  ///< only of a connection that never was can a reset be judged
    packet rejected;
    bool taken_off;
  } rows[] = {
      {"reset out of place", 0,
       packet().ipv4(peer, host).tcp(80, 40000).flags(wire::tcp_flag::rst).seq(4000), true},
      {"wrong checksum", ct_ext_flag::ever_added, packet(fin).l4_checksum(0x1234), true},
      {"impossible header length", ct_ext_flag::ever_added, packet(fin).data_offset(4), true},
      {"FIN without ACK", ct_ext_flag::ever_added, packet(fin).flags(wire::tcp_flag::fin), true},
      {"another connection's", ct_ext_flag::ever_added,
       packet().ipv4(host, peer).tcp(40001, 80).flags(wire::tcp_flag::fin | wire::tcp_flag::ack),
       false},
      {"SYN, which the module passes over", ct_ext_flag::ever_added,
       packet(fin).flags(wire::tcp_flag::syn | wire::tcp_flag::rst), false},
      {"broken data segment", ct_ext_flag::ever_added,
       packet(fin).flags(wire::tcp_flag::ack).l4_checksum(0x1234), false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    ext->flags = ct_ext_flag::direction_marks | row.ever_added;
    module.deletes.clear();
    const bool from_host = ipv4_of(row.rejected.build(), link::ip).saddr.raw() == ip4(host);
    EXPECT_TRUE((from_host ? outward(row.rejected) : inward(row.rejected)).dropped);
    EXPECT_EQ(module.deletes.size(), row.taken_off ? 1U : 0U);
    EXPECT_EQ(ext->flags, row.ever_added | (row.taken_off ? 0U : ct_ext_flag::direction_marks));
  }
  run("<A =3");
  tracker().module_going();
}

}  // namespace
}  // namespace tarvelo::test
