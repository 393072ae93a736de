# Included after the names are set, as OpenWrt does; nothing of it is needed here.
