include $(sort $(wildcard $(BR2_EXTERNAL_KEYWARDD_PATH)/package/*/*.mk))
