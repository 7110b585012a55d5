package vex.client;

import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import vex.jni.Run;

/** Runs programs with a toolkit that knows less than ours. */
final class ReducedToolkit {
    private ReducedToolkit() {}

    /**
     * Runs a program's main method in a JVM of its own, which has to end with status 0.
     *
     * @param environment what the toolkit does not know: see ReducedToolkit.cpp
     */
    static Run run(Class<?> program, Map<String, String> environment, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram("java"), "--enable-native-access=ALL-UNNAMED",
            "-Dvex.jni.library=" + System.getProperty("vex.jni.library"), "-cp", System.getProperty("java.class.path"),
            program.getName()));
        command.addAll(List.of(arguments));
        ProcessBuilder builder = new ProcessBuilder(command);
        builder.environment().merge("LD_PRELOAD", System.getProperty("vex.test.reduced-toolkit"),
            (others, library) -> others + " " + library);
        builder.environment().putAll(environment);
        return Run.of(builder).succeeded();
    }
}
