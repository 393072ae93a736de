FILESEXTRAPATHS:prepend := "${THISDIR}/files:"
SRC_URI += "file://wex.cfg"
