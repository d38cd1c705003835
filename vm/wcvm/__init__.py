"""Boots OVMF under QEMU with a FAT disk holding Wirecheck.efi and the VexRun manager, runs the
manager from the UEFI shell (or a boot image) and reads its results back.

Networking is QEMU user networking with restrict=on (or an isolated hub): the guest can reach
nothing outside the virtual network.
"""
from .capture import read_pcap
from .config import (EFI_DIR, LAST_DIR, NIC_MODELS, RESULT_LINE, HarnessError, Nic, VmConfig, VmRun,
                     parse_files, parse_var)
from .disk import build_image, read_image_file, read_image_results
from .live import clean_serial, run_vm
from .report import call_blocks

__all__ = ["EFI_DIR", "LAST_DIR", "NIC_MODELS", "RESULT_LINE", "HarnessError", "Nic", "VmConfig", "VmRun",
           "build_image", "call_blocks", "clean_serial", "parse_files", "parse_var", "read_image_file", "read_image_results", "read_pcap", "run_vm"]
