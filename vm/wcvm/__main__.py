"""python3 -m wcvm [run arguments] | image FILE [image arguments]"""
import sys

from .cli import image_main, main

if sys.argv[1:2] == ["image"]:
    sys.exit(image_main(sys.argv[2:]))
sys.exit(main(sys.argv[1:]))
