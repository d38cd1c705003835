#include "manager/Advice.h"

#include "base/Number.h"
#include "base/Print.h"
#include "base/String.h"

namespace {

// The texts are the README's cells, code spans in backquotes included.
constexpr AdviceRow kRows[] = {
    {0x80160101, u"0x80160101", u"pingtest", u"the NIC got no IPv4 address within 60 s, or DHCP timed out",
     u"a DHCP server on the port's network: no server, one that offers but never acknowledges, and one that "
     u"answers with NAK all end here; so does a missing cable on a NIC whose driver never reads the link "
     u"(no prompt to plug the cable was shown: look at the cable and the port's light)"},
    {0x80160302, u"0x80160302", u"interactivenetworktest", u"no address within 60 s, or DHCP not bound",
     u"as 0x80160101"},
    {0x80160102, u"0x80160102", u"pingtest", u"the DHCP server did not answer every echo request in time",
     u"whether the server answers ping at all (a firewall dropping ICMP), answers late (more than about 2 s: "
     u"a "
     u"reply 1.5 s late still passes, 3 s late fails), or loses replies (one lost reply of `-testrepeats` "
     u"fails "
     u"the test, unless a duplicated reply stands in for it: any echo reply from the server counts, whatever "
     u"its sequence number); a \"destination unreachable\" answer, replies with another identifier and "
     u"replies from "
     u"another "
     u"address count as no reply. Where the log says the NIC's driver counted received frames dropped while "
     u"the replies were awaited, the replies may have reached the machine and been lost in its receive "
     u"buffers (a network busy with other traffic, a NIC driver with few buffers)"},
    {0x80160303, u"0x80160303", u"interactivenetworktest",
     u"the host pinged last (the gateway, or the DHCP server) did not answer three requests",
     u"as 0x80160102. A silent gateway does not show here: the test then configures the NIC by DHCP and "
     u"pings the "
     u"DHCP server instead, and passes when that answers"},
    {0x80160103, u"0x80160103", u"pingtest, the NIC tests", u"no NIC with a managed-network service binding",
     u"the log's next line says what the module saw: no random-number generator (firmware since EDK2 2024 "
     u"starts "
     u"no network stack without one: enable the platform's RNG or TPM entropy source in setup), no network "
     u"driver "
     u"connected to the NIC (the shell's `connect -r`; a boot order that skips network boot may leave them "
     u"unconnected), no NIC driver at all (a NIC without a UEFI driver or option ROM), or the binding "
     u"missing "
     u"although all of that is there (a firmware fault)"},
    {0x80160104, u"0x80160104", u"pingtest, the NIC tests",
     u"the NIC asked for by `-index`, `-devicepath` or `-DeviceID` does not exist",
     u"the option's value against the machine's NICs: `-index` counts the NICs with a managed-network "
     u"service "
     u"binding from 1 (with `-DeviceID`, those with that PCI device ID); `interactivenetworktest`'s menu "
     u"lists "
     u"them"},
    {0x80160105, u"0x80160105", u"pingtest",
     u"an unsupported ping kind was asked for (`-dhcpping=false` or `-localping=true`)",
     u"the call's options: pingtest pings the DHCP server only"},
    {0x80160107, u"0x80160107", u"pingtest", u"no link after six checks", u"the cable and the switch port"},
    {0x80160301, u"0x80160301 (Warning)", u"interactivenetworktest", u"no link after ten checks",
     u"as 0x80160107"},
    {0x80160106, u"0x80160106", u"pingtest",
     u"DHCP refused: another DHCP client was active on the NIC for 20 s, or the ping found no address",
     u"another program or driver using the NIC's DHCP"},
    {0x80160402, u"0x80160402", u"macaddresstest",
     u"every attempt found a bad MAC address: zero, broadcast-like, or matching a pattern of `Network.ini`'s "
     u"`[Invalid_MACPattern]`",
     u"the address the log shows: all zeros or all ones is a NIC whose address was never programmed (its "
     u"EEPROM); a pattern match is the fleet's own rule"},
    {0x80160501, u"0x80160501", u"SpeedTest",
     u"the transmit throughput was below `-NetworkSpeed` in every attempt",
     u"the speed the switch port negotiated (a 100 Mbit/s port under a 1000 Mbit/s test), and the log's "
     u"frames per "
     u"second and frames that failed"},
    {0x80160601, u"0x80160601", u"NicSpeedTest",
     u"the NIC's rated speeds, by its PCI vendor and device ID, do not reach `-NetworkSpeed`",
     u"the NIC model against the speed the machine should have; the rated speeds come from the built-in "
     u"table and "
     u"the `[NIC_Speed]` section of `Network.ini`"},
    {0x80160701, u"0x80160701", u"IRQTest", u"the NIC's PCI interrupt line is 0 (no interrupt routed)",
     u"the interrupt routing of the slot in the firmware's setup"},
    {0x80160801, u"0x80160801", u"ping6test",
     u"the NIC has no working IPv6 stack: no IPv6 service binding or configuration, or no link-local address",
     u"the log's next line: no random-number generator (as 0x80160103), a firmware built without IPv6 (no "
     u"NIC has an IPv6 service; the shell's `ifconfig6 -l` lists none), the IPv6 driver not started on this "
     u"NIC, or a router's SLAAC prefix the firmware formed no address from"},
    {0x80160802, u"0x80160802", u"ping6test",
     u"the NIC asked for by `-index` or `-devicepath` does not exist", u"as 0x80160104"},
    {0x80160803, u"0x80160803", u"ping6test", u"no link after six checks", u"as 0x80160107"},
    {0x80160804, u"0x80160804", u"ping6test",
     u"no router advertisement within 12 s, or only advertisements with a router lifetime of 0",
     u"a router for IPv6 on the port's network (radvd, dnsmasq's `enable-ra`, the switch's own): the log "
     u"says whether advertisements came; a lifetime of 0 means the router does not offer itself as the "
     u"default router. `-target=ADDRESS` pings a host without one"},
    {0x80160805, u"0x80160805", u"ping6test",
     u"the router's advertisement asked for DHCPv6 (M flag) and no address came by DHCPv6 within 30 s",
     u"the DHCPv6 server: whether one serves the port's network, and whether it has addresses to give; the "
     u"log shows whether any answer came"},
    {0x80160806, u"0x80160806", u"ping6test",
     u"another node holds an address of the NIC (duplicate-address detection)",
     u"the node whose MAC address the log names: two NICs with one MAC address, or an address a DHCPv6 "
     u"server handed out twice"},
    {0x80160807, u"0x80160807", u"ping6test",
     u"the target did not answer every echo request in time, or the request could not be sent",
     u"as 0x80160102; the log says whether the firmware refused to send (no route to a global target from a "
     u"NIC without a global address). Replies are matched by identifier and sequence number: a duplicated "
     u"reply does not stand in for a lost one"},
    {0x80160901, u"0x80160901", u"downloadtest",
     u"the firmware has no HTTP client on the NIC (no HTTP service binding)",
     u"the firmware's network settings: HTTP boot (and so its HTTP driver) switched off or not built in; the "
     u"shell's `drivers` lists HttpDxe where it is there"},
    {0x80160902, u"0x80160902", u"downloadtest",
     u"the NIC asked for by `-index` or `-devicepath` does not exist", u"as 0x80160104"},
    {0x80160903, u"0x80160903", u"downloadtest", u"no link after six checks", u"as 0x80160107"},
    {0x80160904, u"0x80160904", u"downloadtest",
     u"the NIC got no IP address within 60 s (for a server by its IPv6 address: none from its router within "
     u"30 s)",
     u"as 0x80160101: the DHCP server of the port's network; for IPv6, as 0x80160804 and 0x80160805: the log "
     u"says what was missing"},
    {0x80160905, u"0x80160905", u"downloadtest", u"the server's name did not resolve",
     u"the log says which: no DNS server came with the DHCP lease (the DHCP server's DNS option), the DNS "
     u"server answered that the name does not exist (a typing error, a missing record), or no DNS server "
     u"answered"},
    {0x80160906, u"0x80160906", u"downloadtest", u"no connection to the server",
     u"whether the server runs and listens on the URL's port (Connection Refused), and whether the port's "
     u"network reaches it (Time out: a firewall, a route)"},
    {0x80160907, u"0x80160907", u"downloadtest", u"the TLS handshake failed",
     u"the log's reason: the server's certificate must be signed by a certificate authority enrolled in the "
     u"firmware (its TLS settings, the TlsCaCertificate variable) and must name the host of the URL"},
    {0x80160908, u"0x80160908", u"downloadtest",
     u"the server answered with an error status (the log has the code)",
     u"the URL's path (404), the server's permissions (403), a redirection the test does not follow (3xx: "
     u"use "
     u"the URL the log names)"},
    {0x80160909, u"0x80160909", u"downloadtest",
     u"the transfer stalled (no byte for `-timeout` seconds), or ended before Content-Length",
     u"the server and what lies between: a proxy or load balancer that cuts long transfers, a server that "
     u"stops sending; the log says how many bytes came and how the connection ended"},
    {0x8016090A, u"0x8016090A", u"downloadtest", u"the file's SHA-256 digest differs from `-sha256`",
     u"the file on the server against the one the digest was made from; a cache or proxy serving an old "
     u"copy. The log shows both digests"},
    {0x8016090B, u"0x8016090B", u"downloadtest", u"the receive throughput is below `-MinSpeed`",
     u"the port's negotiated speed, the server's own limit (the log's figure against it), other traffic on "
     u"the link"},
    {0x80000001, u"0x80000001", u"any test",
     u"the operator failed or cancelled the test at a progress report or a menu",
     u"nothing on the machine: the test was stopped by hand; run it again"},
    {0x80000002, u"0x80000002", u"any test", u"the option string was refused",
     u"the log's line naming the option; `-help=TEST` lists a test's options with their ranges"},
    {0x800000FF, u"0x800000FF", u"any test",
     u"the module itself failed: memory, a firmware protocol it could not open, a NIC outside "
     u"`NicSpeedTest`'s "
     u"rated-speed table",
     u"the module's `Debug.log` and the status of the result; for `NicSpeedTest`, a row for the NIC in "
     u"`[NIC_Speed]` of `Network.ini`"},
};

} // namespace

const AdviceRow* AdviceRows(UINTN* Count) {
  *Count = sizeof(kRows) / sizeof(kRows[0]);
  return kRows;
}

const AdviceRow* AdviceFor(UINTN Code) {
  for (const AdviceRow& row : kRows)
    if (row.Code == Code)
      return &row;
  return nullptr;
}

void AdviceText(UINTN Code, CHAR16* Out, UINTN OutSize) {
  if (OutSize < sizeof(CHAR16))
    return;
  Out[0] = 0;
  const AdviceRow* row = AdviceFor(Code);
  if (row == nullptr)
    return;
  const CHAR16* check = row->Check;
  if (StrnCmp(check, u"as 0x", 5) == 0) { // the referred code's advice, then what this row adds
    const CHAR16* end = nullptr;
    const AdviceRow* referred = AdviceFor(UINTN(StrToInteger(check + 3, &end, FALSE)));
    if (referred != nullptr && end != nullptr) {
      SPrint(Out, OutSize, u"%s%s", referred->Check, *end == u'.' ? end : u"");
      check = nullptr;
    }
  }
  if (check != nullptr)
    StrCopy(Out, OutSize, check);
  CHAR16* to = Out; // the table's code spans read as plain text on a screen
  for (const CHAR16* from = Out; *from != 0; ++from)
    if (*from != u'`')
      *to++ = *from;
  *to = 0;
}
