package vex.bench;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;

/** Prints settings and samples as bench/report.py reads them, and takes turns between contestants. */
final class Measuring {
    /** A contestant of the comparison. */
    interface Candidate {
        /** Does its work once and returns the cost. */
        double measure() throws Exception;
    }

    private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();

    private final Map<String, String> arguments = new LinkedHashMap<>();

    /** @param arguments NAME=VALUE */
    Measuring(String question, String[] arguments) {
        System.out.println("question\t" + question);
        setting("Java", System.getProperty("java.vm.vendor") + " " + System.getProperty("java.runtime.version"));
        for (String argument : arguments) {
            int equals = argument.indexOf('=');
            this.arguments.put(argument.substring(0, equals), argument.substring(equals + 1));
        }
    }

    static void setting(String name, String value) {
        System.out.println("setting\t" + name + "\t" + value);
    }

    int amount(String name, int otherwise) {
        int amount = Integer.parseInt(arguments.getOrDefault(name, Integer.toString(otherwise)));
        setting(name, Integer.toString(amount));
        return amount;
    }

    String text(String name) {
        return arguments.get(name);
    }

    /** Processor time of the calling thread. */
    static double cpuSeconds() {
        return THREADS.getCurrentThreadCpuTime() * 1e-9;
    }

    /** Takes turns, each round in another order. The warm-up rounds before them do not count. */
    static void interleave(String row, String unit, int warmUp, int rounds, Map<String, Candidate> candidates)
            throws Exception {
        Object[] names = candidates.keySet().toArray();
        for (int round = -warmUp; round < rounds; ++round) {
            for (int i = 0; i < names.length; ++i) {
                String name = (String) names[(i + round + warmUp) % names.length];
                double value = candidates.get(name).measure();
                if (round >= 0) {
                    System.out.println(
                        String.format(Locale.ROOT, "sample\t%s\t%s\t%d\t%.6g\t%s", row, name, round, value, unit));
                }
            }
        }
        System.out.flush();
    }

    /** Waits until a log stops growing, so that one contestant's log writer does not disturb the next contestant. */
    static void waitForWriter(Path log) throws Exception {
        long before = -1;
        for (long now; (now = Files.exists(log) ? Files.getLastModifiedTime(log).toMillis() : 0) != before;) {
            before = now;
            Thread.sleep(10);
        }
    }
}
