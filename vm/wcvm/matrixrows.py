"""The matrix's rows: each test's call and the figure that matters in it, the cable-out rows, and
what the tests' definitions give in each, as the matrix judges its cells against them."""
# (row, option string, the figure that matters: a pattern over the call's lines, or None, its shape)
CALLS = [
    ("pingtest", "-test=pingtest", r"Reply seq 0 from [\d.]+: time (\d+) us", "{} us"),
    ("detectcable", "-test=detectcable", None, ""),  # the flag files it leaves: FLAG_FIGURE
    ("interactivenetworktest", "-test=interactivenetworktest", r"Remote IP Address: ([\d.]+)", "{}"),
    ("macaddresstest", "-test=macaddresstest -debug", r"^([0-9A-F]{1,2}(?:-[0-9A-F]{1,2}){5})$", "{}"),
    ("SpeedTest", "-test=SpeedTest -NetworkSpeed=1", r"speed is (\d+) Mbit/s", "{} Mbit/s"),
    ("NicSpeedTest", "-test=NicSpeedTest", None, ""),
    ("IRQTest", "-test=IRQTest", r"Interrupt Number (\d+)", "IRQ {}"),
    ("ping6test", "-test=ping6test", r"round trip min/avg/max \d+/(\d+)/\d+ us", "{} us"),
    ("downloadtest", "-test=downloadtest -url=http://{server}/{file} -sha256={sha256}", r"speed is (\d+) Mbit/s",
     "{} Mbit/s"),
]

# Bursts at the defaults, the same boot: every call must give its figure, passed or not (a burst the
# firmware pushes back on must still complete). Not run where one burst is already a firmware fault
# the matrix explains (each would wait out the module's ten seconds of draining).
SPEED_ROW, SPEED_CALLS = "SpeedTest x20 (defaults)", 20

# What the tests' definitions give on these NICs: Passed, except that no emulated NIC is in the
# built-in rated-speed table (Unsupported, no retry).
EXPECTED = {test: ("Passed", 0, "Success") for test, *_ in CALLS}
EXPECTED["NicSpeedTest"] = ("Failed", 0x800000FF, "Unsupported")
ROWS = [test for test, *_ in CALLS] + [SPEED_ROW]

# The cable-out boot: two NICs of the model with their cables unplugged. detectcable must write no
# flag; pingtest on NIC 2 asks for the cable (prompt 25), which goes in then, and passes; pingtest on
# NIC 1, whose cable stays out, ends with its no-cable code, and so does ping6test on it. The operator
# answers every prompt.
CABLE_OUT, CABLE_PLUGGED, CABLE_STAYS_OUT = ("detectcable, cables out", "pingtest, cable in at prompt 25",
                                             "pingtest, cable out")
CABLE6_STAYS_OUT = "ping6test, cable out"
CABLE_CALLS = [(CABLE_OUT, "-test=detectcable"), (CABLE_PLUGGED, "-test=pingtest -index=2"),
               (CABLE_STAYS_OUT, "-test=pingtest -index=1"), (CABLE6_STAYS_OUT, "-test=ping6test -index=1")]
EXPECTED[CABLE_OUT] = ("Passed", 0, "Success")
EXPECTED[CABLE_PLUGGED] = ("Passed", 0, "Success")
EXPECTED[CABLE_STAYS_OUT] = ("Failed", 0x80160107, "Success")
EXPECTED[CABLE6_STAYS_OUT] = ("Failed", 0x80160803, "Success")
IPV6_ROWS = ("ping6test", CABLE6_STAYS_OUT)
ROWS += [row for row, _ in CABLE_CALLS]
# The flags detectcable leaves: one for the main boot's cabled NIC, none with the cables out.
FLAGS = {"detectcable": 1, CABLE_OUT: 0}
FLAG_FIGURE = "{} flag(s)"
# Two NICs of one device, only one of them with iPXE's option ROM: the ROM's driver serves both (the
# module's log names each NIC's driver), so the NIC whose own driver sees a missing cable no longer
# does. A third boot of the cable-out rows for the models that have such a twin.
MIXED_OUT = "detectcable, cables out, beside its iPXE twin"
ROM_TWIN = {"virtio": "virtio-ipxe"}
EXPECTED[MIXED_OUT] = ("Passed", 0, "Success")
FLAGS[MIXED_OUT] = 0
ROWS.append(MIXED_OUT)
