# SPDX-License-Identifier: Apache-2.0
# A minimal system: no /var/lib at all. Key 1 writes the DFU auto mode first, so the store
# must make every folder of its path.
rm -rf /var/lib
[ ! -e /var/lib ]
