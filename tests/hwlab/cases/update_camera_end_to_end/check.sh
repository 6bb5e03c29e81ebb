# SPDX-License-Identifier: Apache-2.0
# The update turned the DFU service's automatic switching off first.
value=/var/lib/lynx-dfu/SYSTEM/CurrentControlSet/Services/OptyraCameraDFU/DFUAutoMode
[ "$(cat $value)" = "Disabled" ] || { echo "value: $(cat $value)"; exit 1; }
[ "$(stat -c %a /var/lib)" = 755 ] || { echo "/var/lib mode $(stat -c %a /var/lib)"; exit 1; }
[ "$(stat -c %a /var/lib/lynx-dfu)" = 700 ] || { echo "store mode $(stat -c %a /var/lib/lynx-dfu)"; exit 1; }
