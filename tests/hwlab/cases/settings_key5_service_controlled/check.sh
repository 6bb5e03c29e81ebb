# SPDX-License-Identifier: Apache-2.0
# The DFU service reads the mode from a root-only file.
value=/var/lib/lynx-dfu/SYSTEM/CurrentControlSet/Services/OptyraCameraDFU/DFUAutoMode
[ "$(cat $value)" = "Service Controlled" ] || { echo "value: $(cat $value)"; exit 1; }
[ "$(stat -c %a /var/lib/lynx-dfu)" = 700 ] || { echo "store mode $(stat -c %a /var/lib/lynx-dfu)"; exit 1; }
[ "$(stat -c %a $value)" = 600 ] || { echo "value mode $(stat -c %a $value)"; exit 1; }
