// platform.cpp: the stand-in's configuration.
#include <cstring>
#include <memory>

#include "host.h"
#include "target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	const auto config = std::make_unique<host_config>();
	int lines = 0;
	const auto count = [](void *arg, int line, const char *) {
		if (line <= *static_cast<int *>(arg))
			broken("lines told out of order");
		*static_cast<int *>(arg) = line;
	};
	vek_platform_parse(reinterpret_cast<const char *>(data), size, config.get(), count, &lines);

	if (config->account_count < 0 || config->account_count > HOST_MAX_ACCOUNTS)
		broken("more accounts than there is room for");
	for (int i = 0; i < config->account_count; i++)
		if (const std::size_t length = strnlen(config->accounts[i].name, VEK_USERNAME_LEN);
		    length == 0 || length == VEK_USERNAME_LEN)
			broken("an account without a name that ends");
	if (config->mac[0] != '\0' && !host_is_mac(config->mac, strnlen(config->mac, HOST_MAC_SIZE)))
		broken("a device address that is none");
	for (const host_values &values : config->types)
		for (std::size_t i = 0; i < values.size(); i++)
			if (values[i] < 0 || values[i] > host_rights[i].limit)
				broken("a right out of its range");
	return 0;
}
