// platform.cpp: the stand-in's configuration.
#include <cstring>
#include <memory>

#include "host.h"
#include "target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	const auto config = std::make_unique<host_config>();
	const auto ignore = [](void *, int, const char *) {};
	vek_platform_parse(reinterpret_cast<const char *>(data), size, config.get(), ignore, nullptr);
	for (int i = 0; i < config->account_count; i++) {
		const std::size_t length = strnlen(config->accounts[i].name, VEK_USERNAME_LEN);
		require(length > 0 && length < VEK_USERNAME_LEN, "an account without a name that ends");
	}
	require(config->mac[0] == '\0' || host_is_mac(config->mac, strnlen(config->mac, HOST_MAC_SIZE)),
		"a device address that is none");
	for (const host_values &values : config->types)
		for (std::size_t i = 0; i < values.size(); i++)
			require(values[i] >= 0 && values[i] <= host_rights[i].limit, "a wrong right");
	return 0;
}
