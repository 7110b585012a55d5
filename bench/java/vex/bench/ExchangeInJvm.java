package vex.bench;

import java.util.Map;

/** What one exchange costs inside a JVM: starting a process must not copy the JVM's memory. */
final class ExchangeInJvm {
    private ExchangeInJvm() {}

    private static native double product(int exchanges);

    private static native double floor(int exchanges);

    public static void main(String[] arguments) throws Exception {
        Measuring measuring = new Measuring("What does one exchange cost inside a JVM?", arguments);
        Measuring.setting("heap", Runtime.getRuntime().totalMemory() / (1 << 20) + " MiB");
        System.load(measuring.text("library"));
        int exchanges = measuring.amount("exchanges", 10);
        Measuring.interleave("one exchange inside a JVM", "us", 1, measuring.amount("rounds", 40),
            Map.of("product", () -> product(exchanges), "floor", () -> floor(exchanges)));
    }
}
