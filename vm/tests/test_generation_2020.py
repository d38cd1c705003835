"""EDK2 2020.11 (Debian 11's OVMF): the reduced set of the other generations."""
import unittest

from generations import ReducedSet


class Edk2_2020(ReducedSet):
    generation = "edk2-2020.11"


del ReducedSet

if __name__ == "__main__":
    unittest.main()
