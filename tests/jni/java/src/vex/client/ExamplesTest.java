package vex.client;

import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.lang.reflect.InvocationTargetException;
import java.nio.charset.StandardCharsets;
import java.security.Security;
import java.util.Base64;
import org.bouncycastle.cms.CMSSignedData;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** The programs on the pages do what the pages say. */
@Tag("client")
class ExamplesTest {
    /** What the program prints. Programs are in no package, from where only reflection gets at them. */
    private static String run(String program) throws Exception {
        PrintStream before = System.out;
        ByteArrayOutputStream output = new ByteArrayOutputStream();
        System.setOut(new PrintStream(output, true, StandardCharsets.UTF_8));
        try {
            Class.forName(program).getMethod("main", String[].class).invoke(null, (Object) new String[0]);
        } catch (InvocationTargetException e) {
            throw new AssertionError(program, e.getCause());
        } finally {
            System.setOut(before);
        }
        return output.toString(StandardCharsets.UTF_8);
    }

    @Test
    void signContract() throws Exception {
        String[] lines = run("SignContract").split("\n");
        assertTrue(lines[0].startsWith("Signs as "), lines[0]);
        assertFalse(new CMSSignedData(Base64.getDecoder().decode(lines[1])).getSignerInfos().getSigners().isEmpty());
        assertTrue(lines[2].equals("256 bytes of RSASSA-PKCS1-v1_5"), lines[2]);
    }

    @Test
    void signThroughJca() throws Exception {
        try {
            String output = run("SignThroughJca");
            assertTrue(output.contains("SHA256withRSA by "), output);
            assertTrue(output.contains("SHA256withECDSA by "), output);
        } finally {
            Security.removeProvider(SigningProvider.NAME);
        }
    }
}
