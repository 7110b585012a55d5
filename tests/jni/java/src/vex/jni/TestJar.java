package vex.jni;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;

import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.cert.X509Certificate;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.jar.JarOutputStream;
import java.util.zip.ZipEntry;

/** Writes a jar to sign, and verifies it. */
public final class TestJar {
    private static final byte[] DATA = "some data\0\r\n漢".getBytes(StandardCharsets.UTF_8);

    private TestJar() {}

    public static void write(Path file) throws Exception {
        try (JarOutputStream jar = new JarOutputStream(Files.newOutputStream(file))) {
            jar.putNextEntry(new ZipEntry("entry"));
            jar.write(DATA);
        }
    }

    public static void assertSignedBy(Path file, X509Certificate certificate) throws Exception {
        try (JarFile jar = new JarFile(file.toFile(), true)) {
            JarEntry entry = jar.getJarEntry("entry");
            assertArrayEquals(DATA, jar.getInputStream(entry).readAllBytes());
            assertNotNull(entry.getCodeSigners(), "not signed");
            assertEquals(certificate, entry.getCodeSigners()[0].getSignerCertPath().getCertificates().get(0));
        }
    }
}
