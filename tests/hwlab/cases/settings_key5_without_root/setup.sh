# SPDX-License-Identifier: Apache-2.0
# The camera's video nodes are as udev left them under the project's rule: group plugdev,
# mode 0660. Nothing here changes them.
found=0
for node in /sys/class/video4linux/video*; do
    [ "$(cat "$node/device/../idVendor" 2>/dev/null)" = 3c5e ] || continue
    [ "$(stat -c '%G %a' "/dev/$(basename "$node")")" = "plugdev 660" ] || { ls -l "/dev/$(basename "$node")"; exit 1; }
    found=1
done
[ "$found" = 1 ]
