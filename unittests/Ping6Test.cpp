// The IPv6 ping test on the fake firmware's IPv6 side, and the pieces it is made of: addresses as
// text, the packets it reads from the link and builds itself, the interface information the
// firmware hands over, and the judgement of what a NIC's IPv6 lacks.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/Ipv6Text.h"
#include "nic/Ip6State.h"
#include "ping/Echo6.h"
#include "ping/Ipv6Packets.h"
#include "tests/Ipv6Wait.h"
#include "unittests/NicWorld.h"

namespace {

EFI_IPv6_ADDRESS A(const char16_t* text) {
  EFI_IPv6_ADDRESS a = {};
  EXPECT_TRUE(ParseIpv6Address(text, &a)) << Narrow(text);
  return a;
}

std::string Text(const EFI_IPv6_ADDRESS& a) {
  CHAR16 buffer[kIpv6TextChars];
  FormatIpv6Address(a, buffer, sizeof(buffer));
  return Narrow(buffer);
}

TEST(Ipv6Text, CompressedFormAndEveryWrittenFormReadBack) {
  // RFC 5952: the longest run of zero groups (the first of equal ones), never a single group.
  EXPECT_EQ(Text(A(u"2001:db8:0:0:1:0:0:1")), "2001:db8::1:0:0:1");
  EXPECT_EQ(Text(A(u"2001:db8:0:1:1:1:1:1")), "2001:db8:0:1:1:1:1:1");
  EXPECT_EQ(Text(A(u"::")), "::");
  EXPECT_EQ(Text(A(u"::1")), "::1");
  EXPECT_EQ(Text(A(u"fe80::")), "fe80::");
  EXPECT_EQ(Text(A(u"FE80::5054:FF:FE12:3456")), "fe80::5054:ff:fe12:3456");
  EXPECT_EQ(Text(A(u"::ffff:10.0.2.15")), "::ffff:a00:20f");
  EFI_IPv6_ADDRESS kept = A(u"fd00::1");
  for (const char16_t* bad :
       {u"", u":", u":::", u"1::2::3", u"1:2:3:4:5:6:7", u"1:2:3:4:5:6:7:8:9", u"12345::", u"fe80::1%eth0",
        u"g::1", u"1:", u"::1.2.3", u"::256.1.1.1", u"::01.1.1.1", u"1:2:3:4:5:6:7::8:9"}) {
    EXPECT_FALSE(ParseIpv6Address(bad, &kept)) << Narrow(bad);
  }
  EXPECT_EQ(Text(kept), "fd00::1");
  CHAR16 tiny[5];
  FormatIpv6Address(A(u"fe80::1"), tiny, sizeof(tiny));
  EXPECT_EQ(Narrow(tiny), "fe80");
}

// A router advertisement as a router sends it: the IPv6 header, then the message and options.
std::vector<UINT8> Advertisement(std::vector<UINT8> options, UINT8 flags = 0x40, UINT16 lifetime = 1800) {
  std::vector<UINT8> m = {134, 0, 0, 0, 64, flags, UINT8(lifetime >> 8), UINT8(lifetime), 0, 0,
                          0,   0, 0, 0, 0,  0};
  m.insert(m.end(), options.begin(), options.end());
  EFI_IPv6_ADDRESS src = A(u"fe80::1"), dst = A(u"ff02::1");
  UINT16 sum = Ipv6Checksum(src, dst, 58, m.data(), m.size());
  m[2] = UINT8(sum >> 8);
  m[3] = UINT8(sum);
  std::vector<UINT8> p = {0x60, 0, 0, 0, UINT8(m.size() >> 8), UINT8(m.size()), 58, 255};
  p.insert(p.end(), src.Addr, src.Addr + 16);
  p.insert(p.end(), dst.Addr, dst.Addr + 16);
  p.insert(p.end(), m.begin(), m.end());
  return p;
}

std::vector<UINT8> PrefixOption(UINT8 length, UINT8 flags = 0xC0, UINT8 optionLength = 4) {
  std::vector<UINT8> o = {3, optionLength, length, flags, 0, 1, 0x51, 0x80, 0, 0, 0x38, 0x40, 0, 0, 0, 0};
  EFI_IPv6_ADDRESS prefix = A(u"fd00:1::");
  o.insert(o.end(), prefix.Addr, prefix.Addr + 16);
  o.resize(optionLength * 8, 0);
  return o;
}

TEST(Ipv6Packets, RouterAdvertisementsAndTheirFlaws) {
  Ipv6Packet p;
  auto good = Advertisement(PrefixOption(64), 0xC0, 600);
  ReadIpv6Packet(good.data(), good.size(), &p);
  ASSERT_EQ(p.Kind, Ipv6PacketKind::RouterAdvertisement);
  EXPECT_EQ(p.Flaw, nullptr);
  EXPECT_TRUE(p.Ra.Managed);
  EXPECT_TRUE(p.Ra.Other);
  EXPECT_EQ(p.Ra.Lifetime, 600);
  ASSERT_EQ(p.Ra.PrefixCount, 1);
  EXPECT_EQ(Text(p.Ra.Prefixes[0].Prefix), "fd00:1::");
  EXPECT_EQ(p.Ra.Prefixes[0].Length, 64);
  EXPECT_TRUE(p.Ra.Prefixes[0].Autonomous);
  EXPECT_EQ(p.Ra.Prefixes[0].ValidLifetime, 86400u);
  EXPECT_EQ(p.Ra.Prefixes[0].PreferredLifetime, 14400u);

  // The shapes of 2024's advisories: each is named, and nothing past the flaw is taken.
  struct Case {
    std::vector<UINT8> options;
    const char* flaw;
  } cases[] = {
      {{1, 0, 0, 0, 0, 0, 0, 0}, "length 0"},
      {PrefixOption(129), "longer than 128"},
      {PrefixOption(64, 0xC0, 3), "wrong length"},
      {{3, 9, 64, 0xC0, 0, 0, 0, 0}, "overruns"},
      {{1}, "cut short"},
  };
  for (const Case& c : cases) {
    auto bad = Advertisement(c.options);
    ReadIpv6Packet(bad.data(), bad.size(), &p);
    ASSERT_NE(p.Flaw, nullptr) << c.flaw;
    EXPECT_NE(Narrow(p.Flaw).find(c.flaw), std::string::npos) << Narrow(p.Flaw);
    EXPECT_EQ(p.Ra.PrefixCount, 0) << c.flaw;
  }
  // A bad checksum, hop limit below 255, and a frame shorter than its payload length: not taken.
  auto sum = good;
  sum[50] ^= 1;
  ReadIpv6Packet(sum.data(), sum.size(), &p);
  EXPECT_EQ(p.Kind, Ipv6PacketKind::Ignored);
  auto hops = good;
  hops[7] = 64;
  ReadIpv6Packet(hops.data(), hops.size(), &p);
  EXPECT_EQ(p.Kind, Ipv6PacketKind::Ignored);
  ReadIpv6Packet(good.data(), good.size() - 1, &p);
  EXPECT_EQ(p.Kind, Ipv6PacketKind::Ignored);
  EXPECT_NE(p.Flaw, nullptr);
}

TEST(Ipv6Packets, Dhcp6AnswersGiveTheirAddressAndAnOverrunIsNamed) {
  EFI_IPv6_ADDRESS server = A(u"fe80::2"), client = A(u"fe80::5054:ff:fe12:3456"), given = A(u"fd00:1::100");
  auto reply = [&](std::vector<UINT8> options) {
    std::vector<UINT8> u = {0x02, 0x23, 0x02, 0x22, 0, 0, 0, 0, 7, 1, 2, 3};
    u.insert(u.end(), options.begin(), options.end());
    u[4] = UINT8(u.size() >> 8);
    u[5] = UINT8(u.size());
    UINT16 sum = Ipv6Checksum(server, client, 17, u.data(), u.size());
    u[6] = UINT8(sum >> 8);
    u[7] = UINT8(sum);
    std::vector<UINT8> p = {0x60, 0, 0, 0, UINT8(u.size() >> 8), UINT8(u.size()), 17, 64};
    p.insert(p.end(), server.Addr, server.Addr + 16);
    p.insert(p.end(), client.Addr, client.Addr + 16);
    p.insert(p.end(), u.begin(), u.end());
    return p;
  };
  std::vector<UINT8> ia = {0, 3, 0, 40, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 24};
  ia.insert(ia.end(), given.Addr, given.Addr + 16);
  ia.insert(ia.end(), 8, 0);
  Ipv6Packet p;
  auto good = reply(ia);
  ReadIpv6Packet(good.data(), good.size(), &p);
  ASSERT_EQ(p.Kind, Ipv6PacketKind::Dhcp6Answer);
  EXPECT_EQ(p.Dhcp6Type, kDhcp6Reply);
  ASSERT_TRUE(p.HasTarget);
  EXPECT_EQ(Text(p.Target), "fd00:1::100");
  EXPECT_EQ(p.Flaw, nullptr);

  auto overrun = ia;
  overrun[3] = 200; // the IA_NA option claims more than the message holds
  auto bad = reply(overrun);
  ReadIpv6Packet(bad.data(), bad.size(), &p);
  EXPECT_NE(Narrow(p.Flaw).find("overruns"), std::string::npos);
  EXPECT_FALSE(p.HasTarget);
  auto inner = ia;
  inner[19] = 200; // the address option overruns the IA_NA that holds it
  bad = reply(inner);
  ReadIpv6Packet(bad.data(), bad.size(), &p);
  EXPECT_NE(p.Flaw, nullptr);
  EXPECT_FALSE(p.HasTarget);
}

TEST(Ipv6Packets, SolicitationsCarryTheirChecksumAndGroup) {
  UINT8 packet[kNeighborSolicitationBytes];
  EFI_MAC_ADDRESS mac;
  EFI_IPv6_ADDRESS target = A(u"fe80::5054:ff:fe12:3456"), unspecified = {};
  ASSERT_EQ(BuildDuplicateProbe(packet, sizeof(packet), target, &mac), kNeighborSolicitationBytes);
  EFI_IPv6_ADDRESS group;
  std::memcpy(group.Addr, packet + 24, 16);
  EXPECT_EQ(Text(group), "ff02::1:ff12:3456");
  const UINT8 groupMac[6] = {0x33, 0x33, 0xFF, 0x12, 0x34, 0x56};
  EXPECT_EQ(std::memcmp(mac.Addr, groupMac, 6), 0);
  EXPECT_EQ(packet[7], 255);
  EXPECT_EQ(Ipv6Checksum(unspecified, group, 58, packet + 40, 24), 0);
  EXPECT_EQ(BuildRouterSolicitation(packet, kRouterSolicitationBytes - 1, &mac), 0u);
  ASSERT_EQ(BuildRouterSolicitation(packet, sizeof(packet), &mac), kRouterSolicitationBytes);
  EXPECT_EQ(packet[40], kIcmp6RouterSolicitation);

  EFI_MAC_ADDRESS nic = {{0x52, 0x54, 0x00, 0x12, 0x34, 0x56}};
  UINT8 id[8];
  InterfaceIdFromMac(nic, id);
  EXPECT_EQ(Text(AddressWithInterfaceId(A(u"fe80::"), id)), "fe80::5054:ff:fe12:3456");
  EXPECT_TRUE(SamePrefix(A(u"fd00:1::5"), A(u"fd00:1:0:0:ffff::"), 64));
  EXPECT_FALSE(SamePrefix(A(u"fd00:1::5"), A(u"fd00:2::"), 31));
  EXPECT_FALSE(SamePrefix(A(u"::"), A(u"::"), 129));
}

TEST(Echo6, RepliesCountOnceByIdentifierSequenceAndSource) {
  Echo6Run run = {};
  run.Identifier = 0x6C01;
  run.Sent = 3;
  EFI_IPv6_ADDRESS router = A(u"fe80::1"), other = A(u"fe80::9");
  UINT8 m[8 + kEcho6PayloadBytes];
  auto reply = [&](UINT16 id, UINT16 seq, const EFI_IPv6_ADDRESS& from) {
    BuildEcho6Request(m, A(u"fe80::5"), router, id, seq);
    m[0] = kIcmp6EchoReply;
    return TakeEcho6Reply(m, sizeof(m), from, router, &run);
  };
  EXPECT_EQ(reply(0x6C01, 1, router), 1);
  EXPECT_EQ(reply(0x6C01, 1, router), -1); // a duplicate does not stand in for request 0
  EXPECT_EQ(reply(0x6C00, 0, router), -1); // another run's
  EXPECT_EQ(reply(0x6C01, 0, other), -1);  // another host's
  EXPECT_EQ(reply(0x6C01, 3, router), -1); // a request never sent
  EXPECT_EQ(run.Replies, 1u);
  EXPECT_EQ(run.Duplicates, 1u);
  EXPECT_EQ(run.Strays, 3u);
  EXPECT_EQ(TakeEcho6Reply(m, 7, router, router, &run), -1);
}

TEST(Ip6State, InterfaceInformationIsTakenOnlyAsFarAsItReaches) {
  struct {
    EFI_IP6_CONFIG_INTERFACE_INFO info;
    EFI_IP6_ADDRESS_INFO addresses[2];
    EFI_IP6_ROUTE_TABLE routes[1];
  } buffer = {};
  buffer.addresses[0] = {A(u"fe80::1:2"), 64};
  buffer.addresses[1] = {A(u"fd00::1:2"), 64};
  buffer.routes[0] = {A(u"fe80::1"), {}, 0};
  buffer.info.AddressInfoCount = 2;
  buffer.info.AddressInfo = buffer.addresses;
  buffer.info.RouteCount = 1;
  buffer.info.RouteTable = buffer.routes;
  Ip6State state = {};
  DigestIp6InterfaceInfo(&buffer.info, sizeof(buffer), &state);
  EXPECT_EQ(state.AddressCount, 2u);
  EXPECT_TRUE(state.HasRouter);
  EXPECT_EQ(Text(state.Router), "fe80::1");
  // Counts past the buffer the firmware filled, and an array missing behind its count.
  buffer.info.AddressInfoCount = 1000;
  buffer.info.RouteCount = 50;
  DigestIp6InterfaceInfo(&buffer.info, sizeof(buffer), &state);
  // As many as fit from where the array starts.
  EXPECT_EQ(state.AddressCount, (sizeof(buffer) - sizeof(buffer.info)) / sizeof(EFI_IP6_ADDRESS_INFO));
  buffer.info.AddressInfo = nullptr;
  buffer.info.RouteTable = nullptr;
  DigestIp6InterfaceInfo(&buffer.info, sizeof(buffer), &state);
  EXPECT_EQ(state.AddressCount, 0u);
  EXPECT_FALSE(state.HasRouter);
  DigestIp6InterfaceInfo(&buffer.info, sizeof(buffer.info) - 1, &state);
  EXPECT_EQ(state.AddressCount, 0u);
}

TEST(Ipv6Wait, TheVerdictSaysWhatIsMissing) {
  Ipv6Picture p = {};
  EFI_MAC_ADDRESS mac = {{0x52, 0x54, 0x00, 0x12, 0x34, 0x56}};
  InterfaceIdFromMac(mac, p.InterfaceId);
  NeighborClaim claim = {};
  EXPECT_EQ(JudgeIpv6(p, 5, false, &claim), Ipv6Readiness::Waiting);
  EXPECT_EQ(JudgeIpv6(p, kIpv6WaitSeconds, true, &claim), Ipv6Readiness::NoLinkLocal);
  p.State.AddressCount = 1;
  p.State.Addresses[0] = {A(u"fe80::5054:ff:fe12:3456"), 64};
  // No router: the wait gives up after three solicitations, unless a target was given.
  EXPECT_EQ(JudgeIpv6(p, kRouterWaitSeconds - 1, false, &claim), Ipv6Readiness::Waiting);
  EXPECT_EQ(JudgeIpv6(p, kRouterWaitSeconds, false, &claim), Ipv6Readiness::NoRouter);
  p.TargetGiven = true;
  EXPECT_EQ(JudgeIpv6(p, kRouterWaitSeconds, false, &claim), Ipv6Readiness::Ready);
  p.TargetGiven = false;
  // An advertisement that is no default router's.
  p.Seen.Advertisements = 1;
  p.Seen.Router = A(u"fe80::1");
  EXPECT_EQ(JudgeIpv6(p, kIpv6WaitSeconds, true, &claim), Ipv6Readiness::NotDefaultRouter);
  // A default router that asks for DHCPv6 and SLAAC: each missing address is named.
  p.Seen.Ra.Lifetime = 1800;
  p.Seen.Ra.Managed = true;
  p.Seen.Ra.PrefixCount = 1;
  p.Seen.Ra.Prefixes[0] = {A(u"fd00:1::"), 64, true, true, 86400, 14400};
  EXPECT_EQ(JudgeIpv6(p, 10, false, &claim), Ipv6Readiness::Waiting);
  EXPECT_EQ(JudgeIpv6(p, kIpv6WaitSeconds, true, &claim), Ipv6Readiness::Dhcp6Unanswered);
  p.State.Addresses[p.State.AddressCount++] = {A(u"fd00:1::100"), 128};
  EXPECT_EQ(JudgeIpv6(p, kIpv6WaitSeconds, true, &claim), Ipv6Readiness::SlaacMissing);
  p.State.Addresses[p.State.AddressCount++] = {A(u"fd00:1::5054:ff:fe12:3456"), 64};
  EXPECT_EQ(JudgeIpv6(p, 3, false, &claim), Ipv6Readiness::Ready);
  EXPECT_EQ(Narrow(Ipv6Origin(p, p.State.Addresses[0].Address)), "link-local");
  EXPECT_EQ(Narrow(Ipv6Origin(p, p.State.Addresses[1].Address)), "DHCPv6");
  EXPECT_EQ(Narrow(Ipv6Origin(p, p.State.Addresses[2].Address)), "SLAAC");
  // Under the manual policy (addresses set by hand, or by the firmware's HTTP boot) the router's
  // flags ask nothing of the firmware.
  Ipv6Picture manual = p;
  manual.State.PolicyRead = true;
  manual.State.Policy = Ip6ConfigPolicyManual;
  manual.State.AddressCount = 2;
  manual.State.Addresses[1] = {A(u"fd00:1::1b6"), 64};
  EXPECT_EQ(JudgeIpv6(manual, 3, false, &claim), Ipv6Readiness::Ready);
  EXPECT_EQ(Narrow(Ipv6Origin(manual, manual.State.Addresses[1].Address)).rfind("manual", 0), 0u);
  // Another node claims the SLAAC address before the firmware has it: a duplicate, with who.
  p.State.AddressCount = 2;
  p.Seen.Claims = 1;
  p.Seen.Claimed[0] = {A(u"fd00:1::5054:ff:fe12:3456"), {{0x52, 0x54, 0, 0x99, 0x99, 0x99}}};
  EXPECT_EQ(JudgeIpv6(p, 2, false, &claim), Ipv6Readiness::Duplicate);
  EXPECT_EQ(claim.Mac.Addr[5], 0x99);
}

// ---- The test through the module's protocol ----

struct Ping6World : NicWorld {
  Outcome Run(const char16_t* options) {
    EXPECT_TRUE(Start());
    Outcome o = Execute(options);
    EXPECT_EQ(ipv6.LiveChildren(), 0u);
    EXPECT_EQ(nic.LiveChildren(), 0u);
    EXPECT_EQ(ipv6.policy, Ip6ConfigPolicyManual) << "the NIC's policy is put back";
    EXPECT_TRUE(fw.events.empty());
    EXPECT_EQ(fw.OpensBy(kImage), 0u);
    EXPECT_EQ(ipv6.badEchoChecksums, 0u);
    return o;
  }
};

TEST(Ping6TestOnFakes, PassesWithSlaacAndLogsWhatItFound) {
  Ping6World w;
  auto o = w.Run(u"-test=ping6test -testrepeats=3");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(w.ipv6.policySets, 2u); // automatic for the run, then manual again
  EXPECT_EQ(w.ipv6.echoesSent, (std::vector<UINT16>{0, 1, 2}));
  std::string said = w.Said();
  EXPECT_NE(said.find("Address fe80::5054:ff:fe12:3456/64: link-local, in use"), std::string::npos) << said;
  EXPECT_NE(said.find("Address fd00:1::5054:ff:fe12:3456/64: SLAAC, in use"), std::string::npos);
  EXPECT_NE(said.find("Router advertisement from fe80::1: router lifetime 1800 s"), std::string::npos);
  EXPECT_NE(said.find("Prefix fd00:1::/64"), std::string::npos);
  EXPECT_NE(said.find("3 of 3 echo request(s) answered by fe80::1"), std::string::npos);
  EXPECT_EQ(w.mgr.progress.back().percent, 99u);
}

TEST(Ping6TestOnFakes, Dhcp6AddressWhenTheRouterAsks) {
  Ping6World w;
  w.ipv6.managed = true;
  w.ipv6.slaacPrefix = false;
  auto o = w.Run(u"-test=ping6test -testrepeats=1");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_NE(w.Said().find("Address fd00:1::100/128: DHCPv6, in use"), std::string::npos) << w.Said();
}

TEST(Ping6TestOnFakes, Dhcp6SilentWhenTheRouterAsks) {
  Ping6World silent;
  silent.ipv6.managed = true;
  silent.ipv6.slaacPrefix = false;
  silent.ipv6.dhcp6Answers = false;
  auto o = silent.Run(u"-test=ping6test");
  EXPECT_EQ(o.result, TEST_RESULT_FAILED);
  EXPECT_EQ(o.error, 0x80160805u) << silent.Said();
  EXPECT_TRUE(silent.ipv6.echoesSent.empty());
}

TEST(Ping6TestOnFakes, EachMissingPieceHasItsCode) {
  struct Case {
    const char* what;
    void (*setUp)(FakeIpv6&);
    const char16_t* options;
    UINTN error;
  } cases[] = {
      {"no router", [](FakeIpv6& v) { v.router = false; }, u"-test=ping6test", 0x80160804},
      {"lifetime 0", [](FakeIpv6& v) { v.routerLifetime = 0; }, u"-test=ping6test", 0x80160804},
      {"duplicate link-local", [](FakeIpv6& v) { v.neighborHoldsLinkLocal = true; }, u"-test=ping6test",
       0x80160806},
      {"echo lost", [](FakeIpv6& v) { v.unanswered = {1}; }, u"-test=ping6test -testrepeats=3", 0x80160807},
      // Every reply twice, and the second request's lost: the duplicate does not stand in for it.
      {"duplicated replies",
       [](FakeIpv6& v) {
         v.echoTwice = true;
         v.unanswered = {1};
       },
       u"-test=ping6test -testrepeats=2", 0x80160807},
      {"no IPv6 stack",
       [](FakeIpv6& v) {
         std::erase_if(v.nic.fw.protocols, [](const FakeFirmware::Installed& p) {
           return std::memcmp(&p.guid, &EFI_IP6_SERVICE_BINDING_PROTOCOL_GUID, sizeof(EFI_GUID)) == 0;
         });
       },
       u"-test=ping6test", 0x80160801},
      {"no such NIC", [](FakeIpv6&) {}, u"-test=ping6test -index=2", 0x80160802},
      {"no such path", [](FakeIpv6&) {}, u"-test=ping6test -devicepath=Pci(0x9,0x0)", 0x80160802},
      {"no link", [](FakeIpv6& v) { v.nic.link = false; }, u"-test=ping6test", 0x80160803},
      {"both index and path", [](FakeIpv6&) {}, u"-test=ping6test -index=1 -devicepath=Pci", 0x80000002},
      {"not an address", [](FakeIpv6&) {}, u"-test=ping6test -target=fe80::1::2", 0x80000002},
  };
  for (const Case& c : cases) {
    Ping6World w;
    c.setUp(w.ipv6);
    auto o = w.Run(c.options);
    EXPECT_EQ(o.result, TEST_RESULT_FAILED) << c.what;
    EXPECT_EQ(o.error, c.error) << c.what << "\n" << w.Said();
  }
}

TEST(Ping6TestOnFakes, AMalformedAdvertisementIsLoggedAndTheGoodOneTaken) {
  Ping6World w;
  w.ipv6.malformedFirst = true;
  auto o = w.Run(u"-test=ping6test -testrepeats=1 -devicepath=Pci(0x3,0x0)");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_NE(w.Said().find("A malformed IPv6 packet came: a router advertisement option of length 0"),
            std::string::npos)
      << w.Said();
}

TEST(Ping6TestOnFakes, AGivenTargetNeedsNoRouter) {
  Ping6World w;
  w.ipv6.router = false;
  auto o = w.Run(u"-test=ping6test -target=fe80::1 -testrepeats=1");
  EXPECT_EQ(o.result, TEST_RESULT_PASSED) << w.Said();
  EXPECT_EQ(w.ipv6.policySets, 2u);
}

} // namespace
