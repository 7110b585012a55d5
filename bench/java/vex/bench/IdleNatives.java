package vex.bench;

import java.nio.file.Path;
import java.util.Map;
import vex.jni.TAVClientJNI;

/** What one native costs with a toolkit that does nothing. */
final class IdleNatives {
    private IdleNatives() {}

    private interface Native {
        Object call();
    }

    private static Object sink;

    private static double nanoseconds(Native one, int calls) {
        double begin = Measuring.cpuSeconds();
        for (int i = 0; i < calls; ++i) {
            sink = one.call();
        }
        return (Measuring.cpuSeconds() - begin) * 1e9 / calls;
    }

    public static void main(String[] arguments) throws Exception {
        Measuring measuring = new Measuring("What does one native cost over a toolkit that does nothing?", arguments);
        boolean tracing = measuring.text("tracing").equals("on");
        Measuring.setting("tracing", tracing ? "on" : "off");
        System.load(measuring.text("library"));
        Path handLog = Path.of(measuring.text("logs"), "hand.log");
        Path productLog = Path.of(measuring.text("logs"), "PILog.txt");
        if (tracing) {
            HandWrittenBridge.startLog(handLog.toString());
        }
        TAVClientJNI product = new TAVClientJNI();
        HandWrittenBridge hand = new HandWrittenBridge();
        long handle = product.Initialize(null, "anything");
        String text = "x".repeat(1024);
        int rounds = measuring.amount("rounds", 60);
        int warmUp = measuring.amount("warmup", 10);
        int calls = measuring.amount("calls", tracing ? 300 : 20000);
        String suffix = (tracing ? ", tracing on" : ", tracing off") + ", Java " + Runtime.version().feature();
        compare("SetChooseSingleCert" + suffix, warmUp, rounds, tracing ? calls : calls * 10,
            () -> product.SetChooseSingleCert(handle, 1), () -> hand.SetChooseSingleCert(handle, 1),
            productLog, handLog);
        compare("P1SignString of 1 KiB" + suffix, warmUp, rounds, calls,
            () -> product.P1SignString(handle, text), () -> hand.P1SignString(handle, text), productLog, handLog);
        System.out.flush();
        Runtime.getRuntime().halt(0);
    }

    private static void compare(String row, int warmUp, int rounds, int calls, Native product, Native hand,
            Path productLog, Path handLog) throws Exception {
        Measuring.interleave(row, "ns", warmUp, rounds, Map.of(
            "product", () -> {
                double value = nanoseconds(product, calls);
                Measuring.waitForWriter(productLog);
                return value;
            },
            "hand-written native", () -> {
                double value = nanoseconds(hand, calls);
                Measuring.waitForWriter(handLog);
                return value;
            }));
    }
}
