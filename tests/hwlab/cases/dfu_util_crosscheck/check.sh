# SPDX-License-Identifier: Apache-2.0
# The bytes the device received are the image's, and so is the CRC-32 it reports.
cmp /hwlab/fw-2m.bin received.bin || { echo "received bytes differ"; exit 1; }
crc="$(crc32 /hwlab/fw-2m.bin | cut -d" " -f1)"
grep -qx "dfu manifested blocks 2048 bytes 2097152 crc32 $crc" device.log ||
    { echo "no manifestation with crc32 $crc in:"; cat device.log; exit 1; }
