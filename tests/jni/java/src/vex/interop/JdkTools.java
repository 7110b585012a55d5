package vex.interop;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.Reader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.bouncycastle.openssl.PEMParser;
import org.bouncycastle.operator.jcajce.JcaContentVerifierProviderBuilder;
import org.bouncycastle.pkcs.PKCS10CertificationRequest;
import vex.client.SigningProvider;
import vex.jni.Run;
import vex.jni.TestJar;
import vex.jni.TestStore;

/** jarsigner and keytool. */
final class JdkTools {
    private JdkTools() {}

    private static void run(Signer signer, String tool, String... arguments) throws Exception {
        List<String> command = new ArrayList<>(List.of(Run.jdkProgram(tool), "-storepass", TestStore.PIN));
        if (signer.ours()) {
            command.addAll(List.of("-J--enable-native-access=ALL-UNNAMED",
                "-J--class-path=" + System.getProperty("vex.test.bundled"), "-keystore", "NONE", "-storetype",
                SigningProvider.KEY_STORE_TYPE, "-providerClass", SigningProvider.class.getName(), "-providerArg",
                "file:" + signer.storeFile()));
        } else {
            command.addAll(List.of("-keystore", signer.storeFile().toString()));
        }
        command.addAll(List.of(arguments));
        signer.run(command.toArray(new String[0]));
    }

    static void jarsigner(Signer signer) throws Exception {
        Path jar = signer.directory().resolve("app.jar");
        TestJar.write(jar);
        run(signer, "jarsigner", jar.toString(), signer.alias());
        TestJar.assertSignedBy(jar, signer.certificate());

        signer.run(Run.jdkProgram("keytool"), "-importcert", "-noprompt", "-alias", "root", "-file", "root.pem",
            "-keystore", "roots.p12", "-storepass", TestStore.PIN);
        Run verified = signer.run(Run.jdkProgram("jarsigner"), "-verify", "-strict", "-keystore", "roots.p12",
            "-storepass", TestStore.PIN, "app.jar");
        assertTrue(verified.output().contains("jar verified."), verified.output());
    }

    static void certificateRequest(Signer signer) throws Exception {
        run(signer, "keytool", "-certreq", "-alias", signer.alias(), "-file",
            signer.directory().resolve("request.pem").toString());
        verifyRequest(signer, "request.pem");
    }

    /** Bouncy Castle and openssl each find the request signed with the key that it names. */
    static void verifyRequest(Signer signer, String name) throws Exception {
        try (Reader reader = Files.newBufferedReader(signer.directory().resolve(name));
                PEMParser pem = new PEMParser(reader)) {
            PKCS10CertificationRequest request = (PKCS10CertificationRequest) pem.readObject();
            assertTrue(request.isSignatureValid(new JcaContentVerifierProviderBuilder()
                .setProvider(BouncyCastle.PROVIDER).build(signer.certificate().getPublicKey())));
            assertEquals(signer.certificate().getSubjectX500Principal().getName(), request.getSubject().toString());
        }
        Run verified = signer.run("openssl", "req", "-verify", "-noout", "-in", name);
        assertTrue(verified.output().toLowerCase().contains("verify ok"), verified.output());
    }
}
