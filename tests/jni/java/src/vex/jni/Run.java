package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.nio.charset.Charset;
import java.nio.file.Files;
import java.nio.file.Path;

/** The exit status of a program that has ended, and what it printed. */
public record Run(int status, String output, String errors) {
    /** Runs a program with an empty standard input. The builder may redirect standard error to standard output. */
    public static Run of(ProcessBuilder builder) throws Exception {
        Path errors = Files.createTempFile("run", ".err");
        Process process = builder.redirectError(errors.toFile()).start();
        process.getOutputStream().close();
        String output = new String(process.getInputStream().readAllBytes(), Charset.defaultCharset());
        Run run = new Run(process.waitFor(), output, Files.readString(errors));
        Files.delete(errors);
        return run;
    }

    /** Fails the test with what the program printed, unless its exit status is 0. */
    public Run succeeded() {
        assertEquals(0, status, () -> output + errors);
        return this;
    }

    /** The path of a program of the JDK that runs the tests. */
    public static String jdkProgram(String name) {
        return Path.of(System.getProperty("java.home"), "bin", name).toString();
    }
}
