define BuildPackage
.PHONY: $(1) show-$(1)
$(1):
	$(call Package/$(1)/install,$(TO))
show-$(1):
	@:$$(info $$(Package/$(1)))
endef
