# What the udev rule does for the camera: its video nodes go to group plugdev, so an
# operator who is not root reaches the firmware commands. No udev daemon runs in the VM.
for node in /sys/class/video4linux/video*; do
    [ "$(cat "$node/device/../idVendor" 2>/dev/null)" = 3c5e ] || continue
    chgrp plugdev "/dev/$(basename "$node")" && chmod 0660 "/dev/$(basename "$node")" || exit 1
done
