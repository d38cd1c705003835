"""python3 -m wcvm [run arguments] | image FILE [image arguments] | matrix [MODEL ...] | faults [FAULT ...] | fleet N ... | usage"""
import sys

from .cli import image_main, main, short_usage
from .faults import main as faults_main
from .fleetcmd import main as fleet_main
from .matrix import main as matrix_main

if sys.argv[1:2] == ["image"]:
    sys.exit(image_main(sys.argv[2:]))
if sys.argv[1:2] == ["usage"]:
    print(short_usage())
    sys.exit(0)
if sys.argv[1:2] == ["faults"]:
    sys.exit(faults_main(sys.argv[2:]))
if sys.argv[1:2] == ["fleet"]:
    sys.exit(fleet_main(sys.argv[2:]))
if sys.argv[1:2] == ["matrix"]:
    sys.exit(matrix_main(sys.argv[2:]))
sys.exit(main(sys.argv[1:]))
