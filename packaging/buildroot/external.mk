include $(sort $(wildcard $(BR2_EXTERNAL_WEX_PATH)/package/*/*.mk))
