package vex.interop;

import static org.junit.jupiter.api.Assertions.assertTrue;
import static org.junit.jupiter.api.Assertions.fail;

import java.io.PrintWriter;
import java.io.StringWriter;
import java.util.Optional;
import org.junit.jupiter.api.function.Executable;

/** Compares what happened with what a page says. */
final class Outcome {
    private Outcome() {}

    /** @param refusal the message that the failure has to contain; empty if the case has to work */
    static void require(Optional<String> refusal, Executable action) {
        Throwable failure = null;
        try {
            action.execute();
        } catch (Throwable e) {
            failure = e;
        }
        if (refusal.isEmpty()) {
            if (failure != null) {
                fail("The page says that this works.", failure);
            }
            return;
        }
        if (failure == null) {
            fail("This works, but the page says no: " + refusal.get());
        }
        StringWriter text = new StringWriter();
        failure.printStackTrace(new PrintWriter(text));
        assertTrue(text.toString().contains(refusal.get()),
            () -> "The page says \"" + refusal.get() + "\", but this happened: " + text);
    }
}
