package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.Security;
import java.util.Base64;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.tools.ToolProvider;
import org.bouncycastle.cms.CMSSignedData;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The programs on the pages do what the pages promise. */
@Tag("client")
class ExamplesTest {
    /** Returns what the program prints. Programs without a package can be called by reflection only. */
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

    // ---- The first Java lines of the README, which are not a whole program ----

    @TempDir
    private Path directory;

    /** Compiles these lines, with another store URI, to a method that returns the signature. */
    private Method readme(String store) throws Exception {
        Path page = Path.of(System.getProperty("vex.test.docs")).resolveSibling("README.md");
        Matcher block = Pattern.compile("^```java\n(.*?)^```", Pattern.DOTALL | Pattern.MULTILINE)
            .matcher(Files.readString(page));
        assertTrue(block.find());
        String lines = block.group(1);
        Matcher uri = Pattern.compile("\"(file:[^\"]*)\"").matcher(lines);
        assertTrue(uri.find(), lines);
        lines = lines.replace(uri.group(1), store);
        Path source = Files.writeString(directory.resolve("Readme.java"), "import vex.jni.*;\npublic class Readme {\n"
            + "public static String sign() {\n" + lines + "return cms;\n}\n}\n");
        ByteArrayOutputStream errors = new ByteArrayOutputStream();
        int status = ToolProvider.getSystemJavaCompiler().run(
            null, null, errors, "-classpath", System.getProperty("vex.test.jar"), source.toString());
        assertEquals(0, status, errors::toString);
        URL[] path = {directory.toUri().toURL()};
        return new URLClassLoader(path, getClass().getClassLoader()).loadClass("Readme").getMethod("sign");
    }

    @Test
    void theLinesOfTheReadmeSign() throws Exception {
        byte[] cms = Base64.getDecoder().decode((String) readme("demo:").invoke(null));
        assertFalse(new CMSSignedData(cms).getSignerInfos().getSigners().isEmpty());
    }

    @Test
    void theLinesOfTheReadmeExplainAWrongStore() throws Exception {
        Files.writeString(directory.resolve("pin"), "1234");
        Method sign = readme("file:" + directory + "/keys.p12?pin-source=file:" + directory + "/pin");
        Throwable e = assertThrows(InvocationTargetException.class, () -> sign.invoke(null)).getCause();
        assertEquals("The store file does not exist", e.getMessage());
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
