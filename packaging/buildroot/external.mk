include $(BR2_EXTERNAL_SYSCONFIG_PATH)/sysconfig.mk
