include $(sort $(wildcard $(BR2_EXTERNAL_VEXO_PATH)/package/*/*.mk))
