# SPDX-License-Identifier: Apache-2.0
# The node the operator opens is as udev left it under the project's rule: group plugdev,
# mode 0664. Nothing here changes it.
found=0
for dir in /sys/bus/usb/devices/*; do
    [ "$(cat "$dir/idVendor" 2>/dev/null)" = 3c5e ] || continue
    node="/dev/bus/usb/$(printf %03d "$(cat "$dir/busnum")")/$(printf %03d "$(cat "$dir/devnum")")"
    [ "$(stat -c '%G %a' "$node")" = "plugdev 664" ] || { ls -l "$node"; exit 1; }
    found=1
done
[ "$found" = 1 ]
