"""EDK2 2025.02 (Debian 13's OVMF): the reduced set of the other generations."""
import unittest

from generations import ReducedSet


class Edk2_2025(ReducedSet):
    generation = "edk2-2025.02"


del ReducedSet

if __name__ == "__main__":
    unittest.main()
