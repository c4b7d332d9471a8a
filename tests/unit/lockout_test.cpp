// lockout_test.cpp: the shared lockout table: made, aged at the boundary seconds, left alone when it should
// be.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstring>

#include "core.h"
#include "init.h"
#include "lockout.h"
#include "misc.h"
#include "text.h"

namespace {

struct Lockout : testing::Test {
	core running;
	user_lock *table = nullptr;

	void SetUp() override
	{
		ASSERT_EQ(0, lockout_init());
		table = static_cast<user_lock *>(get_shm(USER_LOCK_IPC_KEY));
		ASSERT_NE(nullptr, table);
	}
	void TearDown() override
	{
		put_shm(table);
		lockout_exit();
		EXPECT_EQ(-1, shmget(USER_LOCK_IPC_KEY, 0, 0666)) << "left behind";
		EXPECT_EQ(-1, semget(USER_LOCK_IPC_KEY, 1, 0666)) << "left behind";
	}
	// `prepare` and one pass of ageing within one second of uptime.
	template <class Prepare> void age(Prepare prepare)
	{
		unsigned long now;
		do {
			now = uptime();
			prepare(now);
			dispatch(VEK_EVENT_TIMER_10SECONDS);
		} while (uptime() != now);
	}
};

template <class Record> bool cleared(const Record &record)
{
	Record none;
	std::memset(&none, 0, sizeof(none));
	return std::memcmp(&record, &none, sizeof(none)) == 0;
}

TEST_F(Lockout, AgesAtTheBoundarySeconds)
{
	const struct {
		int lockout_at, attempt_at; // seconds from now
		int inuse, enable;
		bool lockout_goes, attempt_goes;
	} rows[] = {{0, -60, 1, 1, true, true},
		    {1, -59, 7, 1, false, false},
		    {-1, -61, 7, 1, true, true},
		    {0, -60, 0, 1, false, false},
		    {0, -60, 1, 0, false, false},
		    {-50, 1, 1, -1, true, true}}; // an attempt in the future counts as old
	for (const auto &row : rows)
		for (int place : {0, 500, 1023}) {
			age([&](unsigned long now) {
				std::memset(table, 0, sizeof(*table));
				table->enable = static_cast<char>(row.enable);
				lockout_record &lockout = table->lockout_rec[place];
				attempt_record &attempt = table->attempt_rec[place];
				lockout.inuse = attempt.inuse = static_cast<char>(row.inuse);
				lockout.time = now + static_cast<unsigned long>(row.lockout_at);
				attempt.time = now + static_cast<unsigned long>(row.attempt_at);
				copy_text(lockout.username, "eve");
				attempt.count = 3;
			});
			EXPECT_EQ(row.lockout_goes, cleared(table->lockout_rec[place])) << row.lockout_at;
			EXPECT_EQ(row.attempt_goes, cleared(table->attempt_rec[place])) << row.attempt_at;
			EXPECT_EQ(1, semctl(semget(USER_LOCK_IPC_KEY, 1, 0666), 0, GETVAL)) << "given back";
		}
}

TEST_F(Lockout, AStartResetsWhatItFinds)
{
	table->enable = 1;
	table->lockout_rec[7].inuse = table->attempt_rec[1023].inuse = 1;
	semctl(semget(USER_LOCK_IPC_KEY, 1, 0666), 0, SETVAL, 0);
	testing::internal::CaptureStderr();
	EXPECT_EQ(0, lockout_init());
	EXPECT_EQ("Previous user lockout buffer exists. Try to init it\n"
		  "Previous user lockout lock exists. Try to init it\n",
		  testing::internal::GetCapturedStderr());
	user_lock fresh;
	std::memset(&fresh, 0, sizeof(fresh));
	fresh.attempt_count = 5;
	fresh.lockout_period = 30;
	EXPECT_EQ(0, std::memcmp(&fresh, table, sizeof(fresh)));
	EXPECT_EQ(1, semctl(semget(USER_LOCK_IPC_KEY, 1, 0666), 0, GETVAL));
}

TEST_F(Lockout, ATableThatIsGoneOrTooSmallIsLeftAlone)
{
	lockout_exit();
	testing::internal::CaptureStderr();
	dispatch(VEK_EVENT_TIMER_10SECONDS);
	const int small = shmget(USER_LOCK_IPC_KEY, 4096, IPC_CREAT | IPC_EXCL | 0666);
	dispatch(VEK_EVENT_TIMER_10SECONDS);
	EXPECT_EQ(-1, lockout_init());
	const std::string said = testing::internal::GetCapturedStderr();
	EXPECT_TRUE(said.starts_with("Can't get shm!\nCan't get shm!\n")) << said;
	EXPECT_NE(std::string::npos, said.find("Can't create lockout buffer: ")) << said;
	void *block = shmat(small, nullptr, 0);
	EXPECT_TRUE(cleared(*static_cast<char(*)[4096]>(block))) << "written to";
	shmdt(block);
	shmctl(small, IPC_RMID, nullptr);
}

} // namespace
