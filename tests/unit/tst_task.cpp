#include "task.h"
#include "virtual_time.h"

#include <QTest>

using namespace std::chrono_literals;
using namespace tellwyn;
using tellwyn::testing::VirtualTime;

class TestTask : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sleepResumesAfterItsDuration() {
        VirtualTime time;
        QObject context;
        const TaskPtr task = Task::create();
        bool resumed = false;
        task->sleep(time, 10s, &context, [&] { resumed = true; });
        time.advance(9999ms);
        QVERIFY(!resumed);
        time.advance(1ms);
        QVERIFY(resumed);
        QVERIFY(!task->isCancelled());
    }

    void cancellingEndsASleepAtOnce() {
        VirtualTime time;
        QObject context;
        const TaskPtr task = Task::create();
        int resumed = 0;
        task->sleep(time, 10s, &context, [&] { ++resumed; });
        task->cancel();
        QCOMPARE(resumed, 1);
        QVERIFY(task->isCancelled());
        time.advance(20s);
        QCOMPARE(resumed, 1); // the timer was dropped with the sleep
        QCOMPARE(time.pendingTimerCount(), 0);
    }

    void aSleepOfACancelledTaskDoesNotWait() {
        VirtualTime time;
        QObject context;
        const TaskPtr task = Task::create();
        task->cancel();
        bool resumed = false;
        task->sleep(time, 10s, &context, [&] { resumed = true; });
        QVERIFY(resumed);
    }

    void finishTellsEachObserverOnce() {
        const TaskPtr task = Task::create();
        int early = 0;
        int late = 0;
        task->whenFinished([&] { ++early; });
        task->finish();
        task->finish();
        task->whenFinished([&] { ++late; });
        QCOMPARE(early, 1);
        QCOMPARE(late, 1);
    }

    void aDroppedTaskNeverWakes() {
        VirtualTime time;
        QObject context;
        bool resumed = false;
        Task::create()->sleep(time, 1s, &context, [&] { resumed = true; });
        time.advance(2s);
        QVERIFY(!resumed);
    }

    void anAbandonedTaskLetsGoOfItselfWithoutRunningOn() {
        VirtualTime time;
        QObject context;
        bool resumed = false;
        bool observed = false;
        TaskPtr task = Task::create();
        const std::weak_ptr<Task> watch = task;
        task->whenFinished([&observed, task] { observed = true; });
        task->sleep(time, 1s, &context, [&resumed, task] { resumed = true; });
        task->abandon();
        task.reset();
        QVERIFY(watch.expired()); // the continuations held it; now nothing does
        time.advance(2s);
        QVERIFY(!resumed && !observed);
    }
};

QTEST_GUILESS_MAIN(TestTask)
#include "tst_task.moc"
