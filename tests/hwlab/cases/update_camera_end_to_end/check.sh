# The update turned the DFU service's automatic switching off first.
value=/var/lib/lynx-dfu/SYSTEM/CurrentControlSet/Services/OptyraCameraDFU/DFUAutoMode
[ "$(cat $value)" = "Disabled" ] || { echo "value: $(cat $value)"; exit 1; }
