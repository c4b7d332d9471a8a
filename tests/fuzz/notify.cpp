// notify.cpp: a stream of records from a service.
#include "harness.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	fresh_core();
	{
		client service(VEK_SOCKTYPE_NOTIFY);
		service.send(data, size);
	}
	check_core();
	return 0;
}
