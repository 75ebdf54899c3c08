include $(sort $(wildcard $(BR2_EXTERNAL_TAVLO_PATH)/package/*/*.mk))
