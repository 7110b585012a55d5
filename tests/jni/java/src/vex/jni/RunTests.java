package vex.jni;

import static org.junit.platform.engine.discovery.DiscoverySelectors.selectClasspathRoots;

import java.io.PrintWriter;
import java.net.URISyntaxException;
import java.nio.file.Path;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import org.junit.platform.engine.TestExecutionResult;
import org.junit.platform.engine.discovery.ClassNameFilter;
import org.junit.platform.launcher.Launcher;
import org.junit.platform.launcher.LauncherDiscoveryRequest;
import org.junit.platform.launcher.TagFilter;
import org.junit.platform.launcher.TestExecutionListener;
import org.junit.platform.launcher.TestIdentifier;
import org.junit.platform.launcher.TestPlan;
import org.junit.platform.launcher.core.LauncherDiscoveryRequestBuilder;
import org.junit.platform.launcher.core.LauncherFactory;
import org.junit.platform.launcher.listeners.SummaryGeneratingListener;
import org.junit.platform.launcher.listeners.TestExecutionSummary;

/**
 * Runs the tests of a tag in this JVM. All reports go to standard error, so that standard output has only the JVM's own
 * remarks. The run fails if a test is skipped or if no test is found. Only tests with the tag loading may find that the
 * host does not support them; they are reported with the reason.
 */
public final class RunTests {
    private static final long SLOW_MILLISECONDS = 1000;
    private static final int STACK_LINES = 12;

    private RunTests() {}

    /**
     * Ends the JVM with status 0 if every test of the tag passed.
     *
     * @param args the tag
     * @throws URISyntaxException never, for a class that comes from a jar
     */
    public static void main(String[] args) throws URISyntaxException {
        System.exit(run(args[0]) ? 0 : 1);
    }

    private static boolean run(String tag) throws URISyntaxException {
        PrintWriter report = new PrintWriter(System.err, true);
        report.println("Java " + System.getProperty("java.runtime.version") + " (" + System.getProperty("java.vendor")
            + ") in " + System.getProperty("java.home") + ", locale encoding " + System.getProperty("native.encoding"));

        LauncherDiscoveryRequest request = LauncherDiscoveryRequestBuilder.request()
            .selectors(selectClasspathRoots(Set.of(ownJar())))
            .filters(ClassNameFilter.includeClassNamePatterns(".*Test"), TagFilter.includeTags(tag))
            .build();
        Launcher launcher = LauncherFactory.create();
        SummaryGeneratingListener summary = new SummaryGeneratingListener();
        launcher.execute(request, summary, new Reporter(report));

        TestExecutionSummary result = summary.getSummary();
        result.printFailuresTo(report, STACK_LINES);
        report.printf("%d tests of %s: %d passed, %d failed, %d skipped, %d aborted%n",
            result.getTestsFoundCount(), tag, result.getTestsSucceededCount(), result.getTestsFailedCount(),
            result.getTestsSkippedCount(), result.getTestsAbortedCount());
        return result.getTestsFoundCount() > 0
            && result.getTestsSucceededCount() > 0
            && result.getTestsSucceededCount() + announced(tag, result) == result.getTestsFoundCount()
            && result.getTotalFailureCount() == 0;
    }

    private static long announced(String tag, TestExecutionSummary result) {
        return tag.equals("loading") ? result.getTestsAbortedCount() : 0;
    }

    private static Path ownJar() throws URISyntaxException {
        return Path.of(RunTests.class.getProtectionDomain().getCodeSource().getLocation().toURI());
    }

    /** Prints the tests that took long, which explain a slow run, and those that were not run. */
    private static final class Reporter implements TestExecutionListener {
        private final PrintWriter report;
        private final Map<String, Long> started = new ConcurrentHashMap<>();
        private TestPlan plan;

        Reporter(PrintWriter report) {
            this.report = report;
        }

        @Override
        public void testPlanExecutionStarted(TestPlan testPlan) {
            plan = testPlan;
        }

        @Override
        public void executionStarted(TestIdentifier test) {
            started.put(test.getUniqueId(), System.nanoTime());
        }

        @Override
        public void executionFinished(TestIdentifier test, TestExecutionResult result) {
            long milliseconds = (System.nanoTime() - started.get(test.getUniqueId())) / 1_000_000;
            if (result.getStatus() == TestExecutionResult.Status.ABORTED) {
                report.println("not run: " + test.getDisplayName() + ": "
                    + result.getThrowable().map(Throwable::getMessage).orElse("no reason given"));
            }
            if (test.isTest() && milliseconds >= SLOW_MILLISECONDS) {
                String parent = plan.getParent(test).map(TestIdentifier::getDisplayName).orElse("");
                report.println(parent + " " + test.getDisplayName() + ": " + milliseconds + " ms");
            }
        }
    }
}
