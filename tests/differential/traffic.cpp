// SPDX-License-Identifier: GPL-2.0-only
#include "tests/differential/traffic.h"

#include <algorithm>
#include <numeric>

namespace tarvelo::test {
namespace {

namespace flag = wire::tcp_flag;

/// Packets of a connection before anything peculiar happens: as many as make it ripe.
constexpr unsigned youth = 26;
/// Longer than what has ended is remembered, shorter than what goes on may be idle.
constexpr u32 pause = 20000;
constexpr u16 first_port = 20000;
constexpr u16 public_port = 30000;
constexpr u32 fragment_unit = 8;
constexpr std::size_t most_fragments = 12;
constexpr u16 services[] = {53, 80, 443, 5353, 51820};

[[nodiscard]] u32 header_length(const flow& f) {
  return (f.ipv6 ? wire::ipv6_length : wire::ipv4_min_length) +
         static_cast<u32>(f.tcp ? sizeof(wire::tcphdr) : sizeof(wire::udphdr));
}

}  // namespace

std::string flow::name() const {
  const flow_side& there = side[0];
  std::string text = there.from->port + " " + link_names[static_cast<u8>(there.from->kind)] +
                     " to " + there.to->port + " " + link_names[static_cast<u8>(there.to->kind)];
  if (bridged) return text + ", bridged";
  text += ipv6 ? ", IPv6 " : ", IPv4 ";
  text += tcp ? "TCP" : "UDP";
  if (there.destination != side[1].source) text += ", to the router's " + there.destination;
  if (there.source != side[1].destination) text += ", as the router's " + side[1].destination;
  return text;
}

traffic::traffic(u32 seed, unsigned count) : random(seed) {
  for (unsigned i = 0; i < count; ++i) {
    if (chance(random, 10)) {
      add_bridged_flow();
    } else {
      add_flow();
    }
  }
  introduce_hosts();
  std::vector<u32> live(flows.size());
  for (u32 i = 0; i < live.size(); ++i)
    live[i] = i;
  while (!live.empty()) {
    const std::size_t at = random() % live.size();
    const flow& f = flows[live[at]];
    send(live[at]);
    if (f.sent >= f.packets && f.waiting.empty())
      live.erase(live.begin() + static_cast<std::ptrdiff_t>(at));
    if (chance(random, 4)) ++now_;
    if (chance(random, 300) && std::ranges::none_of(flows, &flow::is_halfway)) now_ += pause;
  }
}

void traffic::add_flow() {
  const far_end* a = nullptr;
  const far_end* b = nullptr;
  do {
    a = &net.ends[random() % net.ends.size()];
    b = &net.ends[random() % net.ends.size()];
  } while (a->device == b->device || (a->is_tunnel() && b->is_tunnel() && !chance(random, 8)));
  const auto number = static_cast<u16>(flows.size());
  flow f{};
  f.ipv6 = !a->is_tunnel() && !b->is_tunnel() && chance(random, 4);
  f.tcp = chance(random, 2);
  f.packets = 100 + random() % 200;
  const auto port = static_cast<u16>(first_port + number);
  const u16 service = one_of(services, random);
  const std::string& from = f.ipv6 ? a->host6 : a->host4;
  const std::string& to = f.ipv6 ? b->host6 : b->host4;
  f.side[0] = {a, b, from, to, port, service, random()};
  f.side[1] = {b, a, to, from, service, port, random()};
  if (!f.ipv6 && b->masquerades) f.side[1].destination = b->router4;
  // Translation at both ends is rare: the fast path does not do that.
  if (!f.ipv6 && chance(random, b->masquerades ? 16 : 4)) {
    f.side[0].destination = a->router4;
    f.side[0].destination_port = static_cast<u16>(public_port + number);
    net.config.forwards.push_back({a->device,
                                   f.tcp ? wire::ip_protocol::tcp : wire::ip_protocol::udp,
                                   f.side[0].destination_port, ip4(to), service});
  }
  flows.push_back(f);
}

void traffic::add_bridged_flow() {
  constexpr u32 members = 4;
  const u32 first = random() % members;
  const u32 second = (first + 1 + random() % (members - 1)) % members;
  const far_end* a = &net.ends[first];
  const far_end* b = &net.ends[second];
  flow f{};
  f.bridged = true;
  f.packets = 40 + random() % 40;
  f.side[0] = {a, b, a->host4, b->host4, first_port, services[0], 0};
  f.side[1] = {b, a, b->host4, a->host4, services[0], first_port, 0};
  flows.push_back(f);
}

/// The bridge and its hosts get to know each other.
void traffic::introduce_hosts() {
  for (const far_end& end : net.ends) {
    if (end.kind != link_kind::bridged) continue;
    const packet question =
        network::wrap_ethernet(end, "FF:FF:FF:FF:FF:FF", random)
            .arp(wire::arp_op::request, end.mac, end.host4, "00:00:00:00:00:00", end.router4);
    steps.push_back({now_, &end, question.build(), 0, 0, ++datagrams_, {"arp"}});
  }
}

void traffic::send(u32 flow_number) {
  flow& f = flows[flow_number];
  if (!f.waiting.empty()) return send_waiting(f);
  // The first packet opens the connection, the second answers it.
  const unsigned direction = f.sent < 2 ? f.sent : random() % 2;
  ++datagrams_;
  ++f.sent;
  if (f.bridged) {
    send_bridged(flow_number, direction);
  } else {
    send_packet(flow_number, direction);
  }
}

packet traffic::begin(const flow& f, const flow_side& s) {
  packet p;
  if (f.ipv6) {
    p.ipv6(s.source, s.destination);
  } else {
    p.ipv4(s.source, s.destination).id(any_word(random));
  }
  return p.tos(any_byte(random)).ttl(static_cast<u8>(2 + random() % 254));
}

packet& traffic::add_transport(packet& p, const flow& f, unsigned direction, bool translated) {
  const flow_side& s = f.side[direction];
  const flow_side& other = f.side[1 - direction];
  const u16 source = translated ? other.destination_port : s.source_port;
  const u16 destination = translated ? other.source_port : s.destination_port;
  if (!f.tcp) return p.udp(source, destination);
  const u8 opening = direction == 0 ? flag::syn : flag::syn | flag::ack;
  return p.tcp(source, destination)
      .flags(f.sent <= 2 ? opening : flag::ack)
      .seq(s.sequence, other.sequence);
}

/// Changes a word so that the checksum becomes 0 once the packet has been translated.
void traffic::make_sum_zero(bytes& payload, const flow& f, unsigned direction) {
  const flow_side& other = f.side[1 - direction];
  packet p = packet().ipv4(other.destination, other.source);
  const bytes translated = add_transport(p, f, direction, true).raw(payload).build();
  const std::size_t check = f.tcp ? tcp_checksum : udp_checksum;
  const u32 sum = get16(payload, 0) + get16(translated, wire::ipv4_min_length + check);
  put16(payload, 0, static_cast<u16>((sum & 0xFFFF) + (sum >> 16)));
}

/// A packet comes in the way it should or, rarely, by another link or in another's session.
void traffic::come_in(u32 flow_number, unsigned direction, const bytes& inner, peculiarity what) {
  const flow& f = flows[flow_number];
  const far_end* by = f.side[direction].from;
  const bool young = f.sent <= youth;
  const far_end& other = one_of(net.ends, random);
  // An entry for what comes without a link header gives it to the tunnel's interface, which cannot
  // tell what it came in.
  const bool may_stray = by->kind != link_kind::rawip && other.kind != link_kind::rawip;
  std::optional<u16> session;
  if (!young && may_stray && chance(random, 24)) {
    if (other.kind == by->kind) session = by->id;
    by = &other;
  } else if (!young && chance(random, 48)) {
    session = other.id;
  }
  bytes frame = net.wrap(*by, f.ipv6, random, session).raw(inner).build();
  if (!young && chance(random, 64)) net.promise_more(*by, frame, random);
  // Whatever stands behind the packet is none of its own.
  if (chance(random, 4)) frame.resize(frame.size() + random() % 48, any_byte(random));
  if (!young && chance(random, 64)) frame.resize(1 + random() % frame.size());
  if (!young && by->kind != link_kind::rawip && frame.size() > wire::mac_length) {
    if (chance(random, 128)) frame[0] ^= wire::mac_group_bit;
    if (chance(random, 128)) frame[wire::mac_length - 1] ^= 0x10;
  }
  steps.push_back({now_, by, std::move(frame), flow_number, direction, datagrams_, what});
}

/// None, few, any, or just as many as get through, and one or two more or less.
u32 traffic::payload_for(const flow& f, const flow_side& s) {
  const u32 most = s.to->mtu - header_length(f);
  switch (random() % 8) {
    case 0:
      return 0;
    case 1:
      return random() % most;
    case 2:
      return most - 2 + random() % 5;
    default:
      return random() % 64;
  }
}

void traffic::send_packet(u32 flow_number, unsigned direction) {
  flow& f = flows[flow_number];
  flow_side& s = f.side[direction];
  const bool young = f.sent <= youth;
  // What the router cuts anew has other numbers.
  const bool may_cut = s.from->kind != link_kind::rawip || !s.to->numbered;
  if (!young && !f.tcp && may_cut && chance(random, 8))
    return send_fragments(flow_number, direction);

  const u32 length = f.sent <= 2 ? 0 : payload_for(f, s);
  bytes payload(length);
  std::iota(payload.begin(), payload.end(), any_byte(random));
  if (!f.ipv6 && length >= 2 && chance(random, 8)) make_sum_zero(payload, f, direction);
  packet p = begin(f, s);
  add_transport(p, f, direction, false).raw(payload);
  if (!f.tcp && chance(random, 4)) p.no_checksum();
  s.sequence += f.sent <= 2 ? 1 : length;

  const peculiarity what = !young && chance(random, 4) ? make_peculiar(f, s, p) : peculiarity{};
  bytes inner = p.build();
  if (s.from->kind >= link_kind::pppoe && chance(random, 8)) {
    inner.resize(inner.size() + random() % 16, any_byte(random));  // a session counts that in
  }
  come_in(flow_number, direction, inner, what);
}

peculiarity traffic::make_peculiar(flow& f, const flow_side& s, packet& p) {
  const change& c = one_of(changes, random);
  const bool late = f.sent * 5 > f.packets * 4;
  const bool may_be_unchecked = !s.from->numbered && !s.to->numbered;
  if ((c.needs & of_tcp) != 0 && !f.tcp) return {};
  if ((c.needs & of_udp) != 0 && f.tcp) return {};
  if ((c.needs & of_ipv4) != 0 && f.ipv6) return {};
  if ((c.needs & in_the_end) != 0 && !late) return {};
  if ((c.needs & rarely) != 0 && !late && !chance(random, 8)) return {};
  if (c.what.unchecked && !may_be_unchecked) return {};
  c.make(p, random);
  f.half_closed |= c.half_closes;
  return c.what;
}

/// The fragments of one datagram, in order, each in a frame of its own. They begin alike.
void traffic::send_fragments(u32 flow_number, unsigned direction) {
  flow& f = flows[flow_number];
  const flow_side& s = f.side[direction];
  const packet link = net.wrap(*s.from, f.ipv6, random);
  const packet start = begin(f, s);
  const auto most = static_cast<u32>(1 + random() % 4000);
  const bytes datagram = packet(start).udp(s.source_port, s.destination_port).payload(most).build();
  const bytes data(datagram.end() - static_cast<std::ptrdiff_t>(most + sizeof(wire::udphdr)),
                   datagram.end());
  const std::size_t length = data.size();
  const std::size_t step_length = std::max<std::size_t>(
      fragment_unit * (1 + random() % 160),
      length / most_fragments / fragment_unit * fragment_unit + fragment_unit);
  const auto id = any_word(random);
  for (std::size_t at = 0; at < length; at += step_length) {
    const std::size_t piece = std::min(step_length, length - at);
    const bool more = at + piece < length;
    packet p = start;
    if (f.ipv6) {
      bytes header = {wire::ip_protocol::udp, 0};
      append16(header, static_cast<u16>(at | (more ? 1 : 0)));
      append32(header, id);
      p.type(wire::ip_protocol::ipv6_fragment).raw(header);
    } else {
      p.id(id).fragment(static_cast<u16>(at), more).type(wire::ip_protocol::udp);
    }
    p.raw(std::span(data).subspan(at, piece));
    f.waiting.push_back({0,
                         s.from,
                         packet(link).raw(p.build()).build(),
                         flow_number,
                         direction,
                         datagrams_,
                         {"fragment"}});
  }
  send_waiting(f);
}

void traffic::send_waiting(flow& f) {
  steps.push_back(std::move(f.waiting.front()));
  steps.back().at = now_;
  f.waiting.pop_front();
}

/// What hosts of the bridge have to say to each other is none of the router's business.
void traffic::send_bridged(u32 flow_number, unsigned direction) {
  const flow_side& s = flows[flow_number].side[direction];
  packet p = network::wrap_ethernet(*s.from, s.to->mac, random);
  switch (random() % 8) {
    case 0:
      p.pppoe(any_word(random));
      [[fallthrough]];
    case 1:
      p.ipv6(s.from->host6, s.to->host6).tos(any_byte(random)).tcp(s.source_port, 80);
      break;
    case 2:
      p.pppoe(any_word(random)).type(one_of({u16{0xC021}, u16{0x0021}}, random));
      break;
    case 3:
      p.type(any_word(random));
      break;
    case 4:
      p.pppoe(any_word(random));
      [[fallthrough]];
    default:
      p.ipv4(s.source, s.destination).tos(any_byte(random)).udp(s.source_port, 53);
      break;
  }
  const u32 length = chance(random, 4) ? s.to->mtu - 30 + random() % 40 : random() % 64;
  steps.push_back({now_,
                   s.from,
                   p.payload(length, any_byte(random)).build(),
                   flow_number,
                   direction,
                   datagrams_,
                   {"bridged"}});
}

}  // namespace tarvelo::test
