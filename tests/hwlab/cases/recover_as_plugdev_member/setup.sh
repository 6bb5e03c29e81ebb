# What the udev rule does for the family's USB devices: group plugdev, mode 0664. No udev
# daemon runs in the VM, so the permissions are set here as the rule would set them.
for dir in /sys/bus/usb/devices/*; do
    [ "$(cat "$dir/idVendor" 2>/dev/null)" = 3c5e ] || continue
    node="/dev/bus/usb/$(printf %03d "$(cat "$dir/busnum")")/$(printf %03d "$(cat "$dir/devnum")")"
    chgrp plugdev "$node" && chmod 0664 "$node" || exit 1
done
